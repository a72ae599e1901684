#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include "platform/NetworkExtension.h"

// Adapts a C++ provider to the framework: makes the provider and passes each call on to it. The framework calls the
// adapter on the framework's own queues.
@interface PLProviderAdapter : NEFilterDataProvider {
 @protected
  orvane::Ref<orvane::NEFilterDataProvider> _provider;
}

// Each derived class returns a new provider of its C++ class. If the provider is null, init returns nil.
- (orvane::Ref<orvane::NEFilterDataProvider>)makeProvider;

@end
