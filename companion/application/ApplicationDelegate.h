#pragma once

#import <AppKit/AppKit.h>

#import "companion/application/Switch.h"

// Shows the application's window, which has a state and two buttons for the system extension, and the same for the
// content filter.
@interface ApplicationDelegate : NSObject <NSApplicationDelegate, SwitchObserver>
@end
