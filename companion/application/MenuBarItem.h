#pragma once

#import "companion/application/MainWindow.h"

// The application's item in the menu bar: a shield, and a menu with the state.
@interface MenuBarItem : NSObject

// Does not retain the target, which is also the menu's delegate.
- (instancetype)initWithTarget:(id<ApplicationActions, NSMenuDelegate>)target;

- (void)showTitle:(NSString*)title isOn:(BOOL)isOn;

@end
