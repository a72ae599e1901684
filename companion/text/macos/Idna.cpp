#include "companion/text/Idna.h"

#include <array>
#include <string_view>

#include "platform/names/macos/ICU.h"

namespace orvane {
namespace {

// Error codes of ICU: those above 0 are failures.
constexpr int kMemoryAllocationError = 7;
constexpr int kInvalidCharacterFound = 10;
constexpr int kBufferOverflow = 15;

// The options of UTS #46 that browsers use (WHATWG URL Standard, "domain to ASCII"): the rules for text direction and
// for joiners, and non-transitional processing.
constexpr uint32_t kCheckBidi = 0x4;
constexpr uint32_t kCheckJoiners = 0x8;
constexpr uint32_t kNonTransitionalToASCII = 0x10;
constexpr uint32_t kNonTransitionalToUnicode = 0x20;

// Errors of a label, as bits of UIDNAInfo.errors.
constexpr uint32_t kEmptyLabel = 0x1;
constexpr uint32_t kLabelTooLong = 0x2;
constexpr uint32_t kHyphens =
    0x8 | 0x10 | 0x20;  // hyphens as first, last, or third and fourth character: browsers accept them
struct LabelError {
  uint32_t bit;
  const char* text;
};
constexpr LabelError kLabelErrors[] = {
    {0x40, "a label starts with a combining mark"}, {0x80, "a character is not allowed"},
    {0x100, "an A-label cannot be decoded"},        {0x200, "a label holds a dot"},
    {0x400, "its letters have another A-label"},    {0x800, "letters of both writing directions are mixed"},
    {0x1000, "a joiner is in the wrong place"},
};

// Null when out of memory. The object never changes, so every thread may use it. It is never closed, because other
// threads may use it while the process ends.
const UIDNA* uts46() {
  static const UIDNA* const kIdna = [] {
    int error = 0;
    return uidna_openUTS46(kCheckBidi | kCheckJoiners | kNonTransitionalToASCII | kNonTransitionalToUnicode, &error);
  }();
  return kIdna;
}

// look_up_label() calls this first, because uidna_labelToASCII_UTF8 reports broken UTF-8 as a character that is not
// allowed. u_strFromUTF8 gets no output buffer, so for valid text it reports an overflow, which is no fault here.
bool is_utf8(const std::string& text) {
  int error = 0;
  int32_t length = 0;
  u_strFromUTF8(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()), &error);
  return error != kInvalidCharacterFound;
}

// An A-label that is only the prefix "xn--", or that ends in "-", contains no international letter, so it is invalid.
// Some versions of ICU accept such a label.
bool has_no_international_letter(std::string_view label) {
  constexpr std::string_view kPrefix = "xn--";
  return label.substr(0, kPrefix.size()) == kPrefix && label.back() == '-';
}

ALabel failure(ALabel::Status status, const char* reason = "") { return {status, "", reason}; }

}  // namespace

ALabel look_up_label(const std::string& label) {
  // In bytes. A longer label has an A-label of more than 63 characters, unless UTS #46 maps most of its letters to
  // nothing.
  constexpr size_t kLongest = 4096;
  if (label.size() > kLongest) return failure(ALabel::Status::TooLong);
  if (!is_utf8(label)) return failure(ALabel::Status::NotUTF8);
  if (uts46() == nullptr) return failure(ALabel::Status::OutOfMemory);

  std::array<char, 256> output;
  UIDNAInfo info{};
  info.size = sizeof info;
  int error = 0;
  int32_t length = uidna_labelToASCII_UTF8(uts46(), label.data(), static_cast<int32_t>(label.size()), output.data(),
                                           output.size(), &info, &error);
  if (error == kMemoryAllocationError) return failure(ALabel::Status::OutOfMemory);
  if (error == kBufferOverflow) return failure(ALabel::Status::TooLong);
  if (error > 0) return failure(ALabel::Status::Invalid, "it cannot be looked up");
  for (const LabelError& labelError : kLabelErrors) {
    if ((info.errors & labelError.bit) != 0) return failure(ALabel::Status::Invalid, labelError.text);
  }
  if ((info.errors & kLabelTooLong) != 0) return failure(ALabel::Status::TooLong);
  if ((info.errors & ~(kHyphens | kEmptyLabel)) != 0) return failure(ALabel::Status::Invalid, "it breaks a rule");
  std::string text(output.data(), static_cast<size_t>(length));
  if (has_no_international_letter(text)) return failure(ALabel::Status::Invalid, "its letters have another A-label");
  return {ALabel::Status::Found, std::move(text), ""};
}

std::string unicode_label(const std::string& label) {
  if (uts46() == nullptr) return "";
  std::array<char, 256> output;
  UIDNAInfo info{};
  info.size = sizeof info;
  int error = 0;
  const int32_t length = uidna_labelToUnicodeUTF8(uts46(), label.data(), static_cast<int32_t>(label.size()),
                                                  output.data(), output.size(), &info, &error);
  if (error > 0) return "";
  std::string unicode(output.data(), static_cast<size_t>(length));
  const ALabel found = look_up_label(unicode);
  return found.status == ALabel::Status::Found && found.text == label ? unicode : "";
}

}  // namespace orvane
