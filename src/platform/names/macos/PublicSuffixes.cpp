#include "platform/names/PublicSuffixes.h"

#include <CoreFoundation/CoreFoundation.h>

#include <array>
#include <cstring>
#include <string>

#include "platform/names/macos/ICU.h"

// Looks the name up in the Public Suffix List of CFNetwork. No header of the SDK declares this function. The import is
// weak, so that the programs still start on a system that lacks the function. Then no name counts as a public suffix.
extern "C" Boolean _CFHostIsDomainTopLevel(CFStringRef domain) __attribute__((weak_import));

namespace orvane {

namespace {

bool is_in_list(const char* host) {
  if (_CFHostIsDomainTopLevel == nullptr) return false;
  const CFStringRef text = CFStringCreateWithCString(kCFAllocatorDefault, host, kCFStringEncodingUTF8);
  if (text == nullptr) return false;
  const bool isInList = _CFHostIsDomainTopLevel(text) != 0;
  CFRelease(text);
  return isInList;
}

// The host with its A-labels decoded. Empty if it has no A-label, or if one cannot be decoded.
std::string unicode_form(const char* host) {
  if (std::strstr(host, "xn--") == nullptr) return "";
  constexpr uint32_t kNonTransitionalToUnicode = 0x20;  // as browsers do
  // Never closed, because other threads may use it while the process ends. It never changes.
  static const UIDNA* const kIdna = [] {
    int error = 0;
    return uidna_openUTS46(kNonTransitionalToUnicode, &error);
  }();
  if (kIdna == nullptr) return "";
  std::array<char, 1024> output;  // enough for each name of at most 253 characters
  UIDNAInfo info{};
  info.size = sizeof info;
  int error = 0;
  const int32_t length = uidna_nameToUnicodeUTF8(kIdna, host, static_cast<int32_t>(std::strlen(host)), output.data(),
                                                 output.size(), &info, &error);
  if (error > 0 || info.errors != 0) return "";
  return {output.data(), static_cast<size_t>(length)};
}

}  // namespace

// WebKit decodes A-labels before it asks CFNetwork, so the list seems to have the names in this form.
bool is_public_suffix(const char* host) {
  if (is_in_list(host)) return true;
  const std::string unicode = unicode_form(host);
  return !unicode.empty() && is_in_list(unicode.c_str());
}

}  // namespace orvane
