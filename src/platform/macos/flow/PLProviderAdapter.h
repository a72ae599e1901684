#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include "platform/NetworkExtension.h"
#include "platform/macos/flow/FlowNames.h"

// Adapts a C++ provider to the framework: makes the provider and passes each call on to it. The framework calls the
// adapter on the framework's own queues.
//
// The framework has a host name only for flows of WebKit, URLSession and the Network framework. If a flow has no name,
// the adapter reads the name from the flow's first outbound bytes. It asks the framework for more bytes until the name
// is complete or the bytes cannot contain a name. Only then does it pass the bytes on to the provider.
@interface PLProviderAdapter : NEFilterDataProvider {
 @protected
  orvane::Ref<orvane::NEFilterDataProvider> _provider;

 @private
  orvane::FlowNames _names;
}

// Each derived class returns a new provider of its C++ class. If the provider is null, init returns nil.
- (orvane::Ref<orvane::NEFilterDataProvider>)makeProvider;

@end
