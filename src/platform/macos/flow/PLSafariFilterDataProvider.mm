#import "platform/macos/flow/PLSafariFilterDataProvider.h"

#include "filter/PLSafariFilterDataProvider.h"
#include "platform/macos/flow/Flow.h"
#include "platform/macos/flow/NetworkExtension.h"

@implementation PLSafariFilterDataProvider

- (orvane::Ref<orvane::NEFilterDataProvider>)makeProvider {
  return orvane::PLSafariFilterDataProvider::init();
}

// The method is not called "provider", because the framework's class may have a method of that name.
- (const orvane::PLSafariFilterDataProvider&)orvaneProvider {
  return static_cast<const orvane::PLSafariFilterDataProvider&>(*_provider);
}

- (BOOL)isSafariBrowser:(NEFilterFlow*)flow {
  @autoreleasepool {
    return [self orvaneProvider].isSafariBrowser(*orvane::flow_of(flow));
  }
}

- (NSArray*)createFilterRules {
  return orvane::rule_objects([self orvaneProvider].createFilterRules());
}

@end
