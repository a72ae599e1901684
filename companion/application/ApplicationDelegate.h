#pragma once

#import <AppKit/AppKit.h>

#import "companion/application/Switch.h"

// Shows the application's window. The window has one row for the system extension and one row for the content filter.
// Each row shows a state and has two buttons.
@interface ApplicationDelegate : NSObject <NSApplicationDelegate, SwitchObserver>
@end
