#include "platform/names/PublicSuffixes.h"

#include <CoreFoundation/CoreFoundation.h>

// Looks the name up in the Public Suffix List of CFNetwork. No header of the SDK declares this function. The import is
// weak, so that the programs still start on a system that lacks the function. Then no name counts as a public suffix.
extern "C" Boolean _CFHostIsDomainTopLevel(CFStringRef domain) __attribute__((weak_import));

namespace orvane {

bool is_public_suffix(const char* host) {
  if (_CFHostIsDomainTopLevel == nullptr) return false;
  const CFStringRef text = CFStringCreateWithCString(kCFAllocatorDefault, host, kCFStringEncodingUTF8);
  if (text == nullptr) return false;
  const bool isSuffix = _CFHostIsDomainTopLevel(text) != 0;
  CFRelease(text);
  return isSuffix;
}

}  // namespace orvane
