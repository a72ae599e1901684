#pragma once

#import <Foundation/Foundation.h>
#import <SystemExtensions/SystemExtensions.h>

#import "companion/application/Switch.h"

// Activates and deactivates the system extension in this application's bundle. Use this class on the main thread.
//
// macOS 11 cannot tell whether an extension is active, so this class shows the outcome of its last request as the
// state. If the extension is active already, a request to activate it succeeds at once.
@interface ExtensionSwitch : Switch <OSSystemExtensionRequestDelegate> {
 @private
  OSSystemExtensionRequest* _request;  // the last request; nil once it is answered
  BOOL _activating;
}

// Does not retain the observer.
- (instancetype)initWithExtension:(NSString*)identifier observer:(id<SwitchObserver>)observer;

// activate and deactivate each send a request. A new request replaces an earlier one that still waits for the user's
// approval.
- (void)activate;
- (void)deactivate;

// Whether a request waits for its answer.
@property(readonly) BOOL isPending;

@end
