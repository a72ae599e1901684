#pragma once

#import "platform/macos/control/OrvaneSECommunication.h"
#include "service/OrvaneSECommunication.h"

// Adapts a control object (the core's object that receives a companion's messages) to the Objective-C protocol:
// connections export the adapter instead of the control object. The adapter passes each message on unchanged.
@interface OrvaneController : NSObject <OrvaneSECommunication> {
 @private
  orvane::Ref<orvane::OrvaneSECommunication> _controller;
}

// The adapter of a control object. Each control object has one adapter, which is made on first use and never released.
// @synchronized on the adapter takes the control object's monitor. Nil if `controller` is null. Thread-safe.
+ (OrvaneController*)adapterFor:(orvane::OrvaneSECommunication*)controller;

@end
