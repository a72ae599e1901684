#import "platform/macos/flow/FilterDataProvider.h"

#include "filter/FilterDataProvider.h"
#include "platform/macos/flow/Flow.h"
#include "platform/macos/flow/NetworkExtension.h"

@implementation FilterDataProvider

- (orvane::Ref<orvane::NEFilterDataProvider>)makeProvider {
  return orvane::FilterDataProvider::init();
}

// The method is not called "provider", because the framework's class may have a method of that name.
- (const orvane::FilterDataProvider&)orvaneProvider {
  return static_cast<const orvane::FilterDataProvider&>(*_provider);
}

- (BOOL)isFlowFromBrowser:(NEFilterFlow*)flow {
  @autoreleasepool {
    return [self orvaneProvider].isFlowFromBrowser(*orvane::flow_of(flow));
  }
}

- (NSArray*)createFilterRules {
  return orvane::rule_objects([self orvaneProvider].createFilterRules());
}

@end
