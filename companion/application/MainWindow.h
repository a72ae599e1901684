#pragma once

#import <AppKit/AppKit.h>

// What the window's buttons and the menu bar's items do.
@protocol ApplicationActions
- (void)activate:(id)sender;
- (void)deactivate:(id)sender;
- (void)switchOn:(id)sender;
- (void)switchOff:(id)sender;
- (void)switchListOn:(id)sender;
- (void)switchListOff:(id)sender;
- (void)suspendList:(id)sender;
- (void)resumeList:(id)sender;
- (void)openProfile:(id)sender;
- (void)showWindow:(id)sender;
@end

// The application's window. It has one row for the system extension, one for the content filter, one for the list, and
// one for the profile for browsers. Each row has a text and buttons.
@interface MainWindow : NSObject

// Does not retain the target, which is also the window's delegate.
- (instancetype)initWithTarget:(id<ApplicationActions, NSWindowDelegate>)target;

- (void)showExtension:(NSString*)extension filter:(NSString*)filter list:(NSString*)list;
- (void)open;

@end
