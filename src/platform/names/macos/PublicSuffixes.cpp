#include "platform/names/PublicSuffixes.h"

#include <CoreFoundation/CoreFoundation.h>

// Looks the name up in the Public Suffix List of CFNetwork. No header of the SDK declares this function.
extern "C" Boolean _CFHostIsDomainTopLevel(CFStringRef domain);

namespace orvane {

bool is_public_suffix(const char* host) {
  const CFStringRef text = CFStringCreateWithCString(kCFAllocatorDefault, host, kCFStringEncodingUTF8);
  if (text == nullptr) return false;
  const bool isSuffix = _CFHostIsDomainTopLevel(text) != 0;
  CFRelease(text);
  return isSuffix;
}

}  // namespace orvane
