#pragma once

#import <Foundation/Foundation.h>

#include "platform/XPC.h"

// Adapts the core's delegate to the framework: asks the delegate about each new connection. The framework's listener
// does not retain the adapter.
@interface XPCServiceDelegate : NSObject <NSXPCListenerDelegate> {
 @private
  orvane::NSXPCListener* _listener;
  orvane::Ref<orvane::NSXPCListenerDelegate> _delegate;
}

// Borrows the listener until -dismiss.
- (instancetype)initWithListener:(orvane::NSXPCListener*)listener delegate:(orvane::NSXPCListenerDelegate*)delegate;

// Stops asking the delegate. If the delegate is deciding about a connection, waits until it has decided.
- (void)dismiss;

@end
