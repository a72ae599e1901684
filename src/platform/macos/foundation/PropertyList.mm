#include "platform/PropertyList.h"

#import <Foundation/Foundation.h>

#include "platform/macos/base/CoreFoundation.h"
#include "platform/macos/base/Values.h"
#include "platform/macos/foundation/Foundation.h"

namespace orvane {

void retain(const Data* data) { CFRetain(data); }
void release(const Data* data) { CFRelease(data); }

Ref<Data> data_create(const uint8_t* bytes, int64_t length) {
  // With these arguments, CFDataCreate would end the process.
  if (length < 0 || (bytes == nullptr && length > 0)) return nullptr;
  return Ref<Data>::adopt(from_native<Data>(CFDataCreate(kCFAllocatorDefault, bytes, length)));
}

Value property_list_create_with_data(const Data* data, Ref<NSError>* error) {
  @autoreleasepool {
    Owned<CFErrorRef> failure;
    const Owned list(CFPropertyListCreateWithData(kCFAllocatorDefault, to_native<CFDataRef>(data),
                                                  kCFPropertyListImmutable, nullptr, failure.out()));
    if (failure) *error = error_of(reinterpret_cast<::NSError*>(failure.get()));
    return value_of(static_cast<id>(list.get()));
  }
}

}  // namespace orvane
