#pragma once

#import <Foundation/Foundation.h>

#include "platform/XPC.h"

// The shell of a listener's delegate: asks it about each new connection. The framework's listener does not retain it.
@interface XPCServiceDelegate : NSObject <NSXPCListenerDelegate> {
 @private
  orvane::NSXPCListener* _listener;
  orvane::Ref<orvane::NSXPCListenerDelegate> _delegate;
}

// The listener is borrowed until the shell is dismissed.
- (instancetype)initWithListener:(orvane::NSXPCListener*)listener delegate:(orvane::NSXPCListenerDelegate*)delegate;

// Asks nothing any more; waits for a question that is being asked.
- (void)dismiss;

@end
