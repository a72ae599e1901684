#include "platform/Bundle.h"

#import <Foundation/Foundation.h>

#include "platform/macos/base/CoreFoundation.h"
#include "platform/macos/base/Values.h"

namespace orvane {
namespace {

// string_create() and value_of_object() have autorelease pools of their own, because the main thread has no pool during
// the start.
Owned<CFStringRef> string_create(std::string_view text) {
  @autoreleasepool {
    return Owned(reinterpret_cast<CFStringRef>([foundation_string(text) retain]));
  }
}

Value value_of_object(CFTypeRef object) {
  @autoreleasepool {
    return value_of(static_cast<id>(object));
  }
}

std::string text_of_url(CFURLRef url) {
  const Owned absolute(CFURLCopyAbsoluteURL(url));
  return text_of(reinterpret_cast<::NSString*>(CFURLGetString(absolute.get())));
}

}  // namespace

void retain(const Bundle* bundle) { CFRetain(bundle); }
void release(const Bundle* bundle) { CFRelease(bundle); }

Bundle* bundle_get_main() { return from_native<Bundle>(CFBundleGetMainBundle()); }

Ref<Bundle> bundle_create(const std::string& url) {
  const Owned<CFURLRef> location = url_create(url);
  if (!location) return nullptr;
  return Ref<Bundle>::adopt(from_native<Bundle>(CFBundleCreate(kCFAllocatorDefault, location.get())));
}

Value bundle_get_information(const Bundle* bundle, std::string_view key) {
  if (bundle == nullptr) return nullptr;
  // This does not use CFBundleGetValueForInfoDictionaryKey, because that function prefers a localized value.
  CFDictionaryRef information = CFBundleGetInfoDictionary(to_native<CFBundleRef>(bundle));
  if (information == nullptr) return nullptr;
  return value_of_object(CFDictionaryGetValue(information, string_create(key).get()));
}

std::optional<std::string> bundle_copy_resource_url(const Bundle* bundle, std::string_view name,
                                                    std::string_view type) {
  if (bundle == nullptr) return std::nullopt;
  const Owned<CFStringRef> resource = string_create(name), resourceType = string_create(type);
  const Owned url(CFBundleCopyResourceURL(to_native<CFBundleRef>(bundle), resource.get(), resourceType.get(), nullptr));
  if (!url) return std::nullopt;
  return text_of_url(url.get());
}

}  // namespace orvane
