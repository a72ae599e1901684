#pragma once

#import <Foundation/Foundation.h>
#import <SystemExtensions/SystemExtensions.h>

#import "companion/application/Switch.h"

// Activates and deactivates the system extension that this application brings along. All on the main thread.
//
// macOS 11 has no way to ask whether an extension is active, so what is known of it is what became of the last request.
// A request to activate one that is active succeeds at once.
@interface ExtensionSwitch : Switch <OSSystemExtensionRequestDelegate> {
 @private
  OSSystemExtensionRequest* _request;  // the last one, until it is answered
  BOOL _activating;
}

// The observer is not kept.
- (instancetype)initWithExtension:(NSString*)identifier observer:(id<SwitchObserver>)observer;

// A later request takes the place of one that is still waiting for the user.
- (void)activate;
- (void)deactivate;

@end
