#pragma once

#import "platform/macos/control/OrvaneSECommunication.h"
#include "service/OrvaneSECommunication.h"

// The shell of a control object: what connections export in its place. It hands each message on as it came.
@interface OrvaneController : NSObject <OrvaneSECommunication> {
 @private
  orvane::Ref<orvane::OrvaneSECommunication> _controller;
}

// The one shell of a control object, made on first use and kept for ever. Its monitor is the control object's. Nil for
// null. Thread-safe.
+ (OrvaneController*)shellFor:(orvane::OrvaneSECommunication*)controller;

@end
