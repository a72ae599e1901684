#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include "platform/NetworkExtension.h"

// A provider as the framework knows it. It hands each call to a C++ provider, which it makes and holds, and decides
// nothing. The framework calls it on queues of its own choosing.
@interface PLProviderShell : NEFilterDataProvider {
 @protected
  orvane::Ref<orvane::NEFilterDataProvider> _provider;
}

// For the derived class to answer: a new provider of its C++ class. Null fails the initialiser.
- (orvane::Ref<orvane::NEFilterDataProvider>)makeProvider;

@end
