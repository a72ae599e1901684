#include "companion/text/Idna.h"

#include <idn2.h>

#include <memory>

namespace orvane {
namespace {

struct FreeLabel {
  void operator()(void* label) const { idn2_free(label); }
};

ALabel::Status status_of(int result) {
  switch (result) {
    case IDN2_OK:
      return ALabel::Status::Found;
    case IDN2_DISALLOWED:
    case IDN2_2HYPHEN:
    case IDN2_HYPHEN_STARTEND:
      return ALabel::Status::Forbidden;
    case IDN2_ENCODING_ERROR:
      return ALabel::Status::NotUTF8;
    case IDN2_TOO_BIG_LABEL:
    case IDN2_PUNYCODE_BIG_OUTPUT:
      return ALabel::Status::TooLong;
    case IDN2_MALLOC:
      return ALabel::Status::OutOfMemory;
    default:
      return ALabel::Status::Invalid;
  }
}

}  // namespace

ALabel look_up_label(const std::string& label) {
  uint8_t* output = nullptr;
  int result = idn2_lookup_u8(reinterpret_cast<const uint8_t*>(label.c_str()), &output, IDN2_NONTRANSITIONAL);
  std::unique_ptr<uint8_t, FreeLabel> owner(output);
  ALabel found;
  found.status = status_of(result);
  if (result == IDN2_OK) {
    found.text = reinterpret_cast<const char*>(output);
  } else {
    found.reason = idn2_strerror(result);
  }
  return found;
}

std::string unicode_label(const std::string& label) {
  char* output = nullptr;
  if (idn2_to_unicode_8z8z(label.c_str(), &output, 0) != IDN2_OK) return "";
  std::unique_ptr<char, FreeLabel> owner(output);
  const ALabel found = look_up_label(output);
  return found.status == ALabel::Status::Found && found.text == label ? output : "";
}

}  // namespace orvane
