#pragma once

#import "companion/application/MainWindow.h"

// The application's item in the menu bar: a shield, and a menu with the state of the filter and of the list. The menu
// can also suspend the list's sites for half an hour, and block them again.
@interface MenuBarItem : NSObject

// Does not retain the target, which is also the menu's delegate.
- (instancetype)initWithTarget:(id<ApplicationActions, NSMenuDelegate>)target;

- (void)showTitle:(NSString*)title isOn:(BOOL)isOn;
- (void)showList:(NSString*)state isOn:(BOOL)isOn hasSuspendedNames:(BOOL)hasSuspendedNames;

@end
