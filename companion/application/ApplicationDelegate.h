#pragma once

#import <AppKit/AppKit.h>

#import "companion/application/MainWindow.h"
#import "companion/application/Switch.h"

// Connects the window and the menu bar's item with the switches. Activates the extension when the application starts.
@interface ApplicationDelegate
    : NSObject <NSApplicationDelegate, NSWindowDelegate, NSMenuDelegate, ApplicationActions, SwitchObserver>
@end
