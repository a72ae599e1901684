#include "platform/macos/base/CoreFoundation.h"

namespace orvane {

Owned<CFURLRef> url_create(const std::string& text) {
  const auto* bytes = reinterpret_cast<const UInt8*>(text.data());
  const auto length = static_cast<CFIndex>(text.size());
  return Owned(CFURLCreateWithBytes(kCFAllocatorDefault, bytes, length, kCFStringEncodingUTF8, nullptr));
}

}  // namespace orvane
