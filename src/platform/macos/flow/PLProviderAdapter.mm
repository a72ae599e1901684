#import "platform/macos/flow/PLProviderAdapter.h"

#include "platform/macos/base/Block.h"
#include "platform/macos/flow/Flow.h"
#include "platform/macos/flow/NetworkExtension.h"
#include "platform/macos/foundation/Foundation.h"

namespace {

// Runs `body` in an autorelease pool and returns the object that `body` returned, autoreleased. Without this pool, the
// temporary objects of many flows would collect in the pool of the framework's queue, which may be drained much later.
template <class Body>
auto pooled(Body body) {
  decltype(body()) result = nil;
  @autoreleasepool {
    result = [body() retain];
  }
  return [result autorelease];
}

}  // namespace

@implementation PLProviderAdapter

- (instancetype)init {
  self = [super init];
  if (self == nil) return nil;
  _provider = [self makeProvider];
  if (!_provider) {
    [self release];
    return nil;
  }
  _provider->setPlatformObject(self);
  return self;
}

- (orvane::Ref<orvane::NEFilterDataProvider>)makeProvider {
  return nullptr;
}

- (void)startFilterWithCompletionHandler:(void (^)(NSError*))completionHandler {
  @autoreleasepool {
    const orvane::Block<void(NSError*)> handler(completionHandler);
    _provider->startFilterWithCompletionHandler(
        [handler](const orvane::Ref<orvane::NSError>& error) { handler(orvane::foundation_error(error)); });
  }
}

- (void)stopFilterWithReason:(NEProviderStopReason)reason completionHandler:(void (^)(void))completionHandler {
  @autoreleasepool {
    const orvane::Block<void()> handler(completionHandler);
    _provider->stopFilterWithReason(static_cast<orvane::NEProviderStopReason>(reason), handler);
  }
}

- (NEFilterNewFlowVerdict*)handleNewFlow:(NEFilterFlow*)flow {
  return pooled([&] { return orvane::verdict_object(_provider->handleNewFlow(*orvane::flow_of(flow))); });
}

- (NEFilterDataVerdict*)handleOutboundDataFromFlow:(NEFilterFlow*)flow
                              readBytesStartOffset:(NSUInteger)offset
                                         readBytes:(NSData*)readBytes {
  return pooled([&] {
    const std::span<const uint8_t> bytes(static_cast<const uint8_t*>([readBytes bytes]), [readBytes length]);
    return orvane::verdict_object(_provider->handleOutboundDataFromFlow(*orvane::flow_of(flow), offset, bytes));
  });
}

- (NEFilterDataVerdict*)handleOutboundDataCompleteForFlow:(NEFilterFlow*)flow {
  return pooled(
      [&] { return orvane::verdict_object(_provider->handleOutboundDataCompleteForFlow(*orvane::flow_of(flow))); });
}

@end
