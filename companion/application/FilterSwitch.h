#pragma once

#import <Foundation/Foundation.h>

#import "companion/application/Switch.h"

// Switches the content filter on and off: saves this application's filter configuration in the system's preferences.
// The system asks the user the first time. Use it on the main thread.
@interface FilterSwitch : Switch

// `identifier` names the extension with the provider. Does not retain the observer.
- (instancetype)initWithExtension:(NSString*)identifier observer:(id<SwitchObserver>)observer;

// Reads the current state.
- (void)refresh;

- (void)switchOn;
- (void)switchOff;

// Removes the configuration. It names the extension, so remove it before the extension.
- (void)remove;

@end
