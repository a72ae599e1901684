#pragma once

#import <AppKit/AppKit.h>

#import "companion/application/Switch.h"

// The application's window: the system extension and the content filter, each with its state and two buttons.
@interface ApplicationDelegate : NSObject <NSApplicationDelegate, SwitchObserver>
@end
