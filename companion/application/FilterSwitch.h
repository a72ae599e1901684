#pragma once

#import <Foundation/Foundation.h>

#import "companion/application/Switch.h"

// Switches the content filter on and off: this application's filter configuration among the system's preferences. The
// first time, the system asks the user. All on the main thread.
@interface FilterSwitch : Switch

// The extension that holds the provider. The observer is not kept.
- (instancetype)initWithExtension:(NSString*)identifier observer:(id<SwitchObserver>)observer;

// Looks how things stand.
- (void)refresh;

- (void)switchOn;
- (void)switchOff;

// Takes the configuration away, so that none is left that names an extension which is gone.
- (void)remove;

@end
