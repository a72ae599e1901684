#pragma once

#import <Foundation/Foundation.h>
#import <SystemExtensions/SystemExtensions.h>

#import "SwitchObserver.h"

// Activates and deactivates the system extension that this application brings along. All on the main thread.
//
// macOS 11 has no way to ask whether an extension is active, so what is known of it is what became of the last request.
// A request to activate one that is active succeeds at once.
@interface ExtensionSwitch : NSObject <OSSystemExtensionRequestDelegate> {
 @private
  NSString* _identifier;
  NSString* _state;
  OSSystemExtensionRequest* _request;  // the last one, until it is answered
  BOOL _activating;
  id<SwitchObserver> _observer;
}

// The observer is not kept.
- (instancetype)initWithIdentifier:(NSString*)identifier observer:(id<SwitchObserver>)observer;

// A text for the user: what was asked last and what came of it.
@property(readonly, copy) NSString* state;

// A later request takes the place of one that is still waiting for the user.
- (void)activate;
- (void)deactivate;

@end
