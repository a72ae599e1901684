#pragma once

#import <Foundation/Foundation.h>

#import "companion/application/Switch.h"

// Switches the content filter on and off: saves this application's filter configuration in the system's preferences.
// The first time, the system asks the user for permission. Use this class on the main thread.
//
// `state` has text only until the system has answered the first question, and after a failure.
@interface FilterSwitch : Switch

// As the system's preferences last had it: whether there is a configuration, and whether it is switched on.
@property(readonly) BOOL isSetUp;
@property(readonly) BOOL isSwitchedOn;

// `identifier`: the bundle identifier of the extension that contains the provider. Does not retain the observer.
- (instancetype)initWithExtension:(NSString*)identifier observer:(id<SwitchObserver>)observer;

// Reads the current state from the system's preferences and shows it.
- (void)refresh;

- (void)switchOn;
- (void)switchOff;

// Removes the configuration, if there is one. Then calls the handler, also after a failure. Deactivate the extension
// only then, because the configuration names the extension.
- (void)removeThen:(void (^)(void))handler;

@end
