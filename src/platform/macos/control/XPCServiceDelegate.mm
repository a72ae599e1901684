#import "platform/macos/control/XPCServiceDelegate.h"

#import "platform/macos/control/XPCConnection.h"

@implementation XPCServiceDelegate

- (instancetype)initWithListener:(orvane::NSXPCListener*)listener delegate:(orvane::NSXPCListenerDelegate*)delegate {
  self = [super init];
  if (self != nil) {
    _listener = listener;
    _delegate = orvane::Ref<orvane::NSXPCListenerDelegate>::retained(delegate);
  }
  return self;
}

- (void)dismiss {
  @synchronized(self) {
    _listener = nullptr;
  }
}

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)newConnection {
  @autoreleasepool {
    @synchronized(self) {
      if (_listener == nullptr) return NO;
      auto connection = orvane::connection_of(newConnection);
      return _delegate->shouldAcceptNewConnection(*_listener, *connection) ? YES : NO;
    }
  }
}

@end
