#import "companion/application/ApplicationDelegate.h"

#import "companion/application/ControlCommand.h"
#import "companion/application/ExtensionSwitch.h"
#import "companion/application/FilterSwitch.h"
#import "companion/application/ListSwitch.h"
#import "companion/application/MenuBarItem.h"
#include "companion/application/Protection.h"

namespace {

constexpr NSTimeInterval kTimeout = 5;  // for an answer of the extension
// When the application asks the extension again: while the filter is on, and while something is missing, for example
// because the extension has only begun to start. The window and the menu also ask when they open.
constexpr NSTimeInterval kIntervalOn = 60;
constexpr NSTimeInterval kIntervalMissing = 5;

// The menu bar: Quit, and Copy, which copies selected text of the labels.
NSMenu* main_menu() {
  NSMenu* menu = [[[NSMenu alloc] init] autorelease];
  NSMenu* application = [[[NSMenu alloc] init] autorelease];
  [application addItemWithTitle:@"Quit OrvaneSE" action:@selector(terminate:) keyEquivalent:@"q"];
  [menu addItemWithTitle:@"OrvaneSE" action:nil keyEquivalent:@""].submenu = application;
  NSMenu* edit = [[[NSMenu alloc] initWithTitle:@"Edit"] autorelease];
  [edit addItemWithTitle:@"Copy" action:@selector(copy:) keyEquivalent:@"c"];
  [menu addItemWithTitle:@"Edit" action:nil keyEquivalent:@""].submenu = edit;
  return menu;
}

// The user may have closed the window, so a fault of an action in the menu bar is shown in a window of its own.
void warn(NSString* title, NSString* fault) {
  if (fault.length == 0) return;
  NSAlert* alert = [[[NSAlert alloc] init] autorelease];
  alert.messageText = title;
  alert.informativeText = fault;
  [[NSApplication sharedApplication] activateIgnoringOtherApps:YES];
  [alert runModal];
}

}  // namespace

@implementation ApplicationDelegate {
  MainWindow* _window;
  MenuBarItem* _menuBarItem;
  ExtensionSwitch* _extension;
  FilterSwitch* _filter;
  ListSwitch* _list;
  orvane::Protection _protection;
  BOOL _isAsking;
  NSTimer* _next;  // asks again; the run loop retains it
}

- (void)dealloc {
  [_extension release];
  [_filter release];
  [_list release];
  [_menuBarItem release];
  [_window release];
  [super dealloc];
}

- (void)applicationDidFinishLaunching:(NSNotification*)notification {
  [NSApplication sharedApplication].mainMenu = main_menu();
  _window = [[MainWindow alloc] initWithTarget:self];
  _menuBarItem = [[MenuBarItem alloc] initWithTarget:self];
  NSString* identifier = [[NSBundle mainBundle] objectForInfoDictionaryKey:@"OrvaneSystemExtension"];
  _extension = [[ExtensionSwitch alloc] initWithExtension:identifier observer:self];
  _filter = [[FilterSwitch alloc] initWithExtension:identifier observer:self];
  _list = [[ListSwitch alloc] initWithObserver:self];
  // The system expects a request at each start. If the extension is active already, the request succeeds at once; if
  // the application has another version, the request replaces the extension.
  [_extension activate];
  [_filter refresh];
  [_list refresh];
  [_window open];
}

// The window stays open while a request waits, because the window says what the user must do.
- (BOOL)windowShouldClose:(NSWindow*)window {
  return !_extension.isPending;
}

- (BOOL)applicationShouldHandleReopen:(NSApplication*)application hasVisibleWindows:(BOOL)hasVisibleWindows {
  [self showWindow:nil];
  return NO;
}

- (void)windowDidBecomeKey:(NSNotification*)notification {
  [self ask];
  [_list refresh];
}

- (void)menuWillOpen:(NSMenu*)menu {
  [self ask];
  [_list refresh];
}

// Asks the extension how many edits of its list it has received. While the filter is switched off, there is no
// extension to ask.
- (void)ask {
  // After it has fired, nothing keeps the timer in memory.
  [_next invalidate];
  _next = nil;
  if (_isAsking || !_protection.isSwitchedOn) return;
  _isAsking = YES;
  [ControlCommand run:[[NSBundle mainBundle] pathForAuxiliaryExecutable:@"orvanectl"]
            arguments:@[ @"changes" ]
              timeout:kTimeout
                 then:^(int exitCode, NSString* output, NSString* error) {
                   _isAsking = NO;
                   _protection.exitCode = exitCode;
                   _protection.output = output.UTF8String;
                   _protection.error = error.UTF8String;
                   [self show];
                   [self askLater];
                 }];
}

- (void)askLater {
  const bool isOn = orvane::state_of(_protection) == orvane::ProtectionState::On;
  const NSTimeInterval interval = isOn ? kIntervalOn : kIntervalMissing;
  _next = [NSTimer scheduledTimerWithTimeInterval:interval target:self selector:@selector(ask) userInfo:nil repeats:NO];
  _next.tolerance = interval / 2;
}

// A change of a switch also starts or ends the extension.
- (void)switchChanged {
  _protection.isSetUp = _filter.isSetUp;
  _protection.isSwitchedOn = _filter.isSwitchedOn;
  _protection.list = _list.list;
  if (!_protection.isSwitchedOn) _protection.exitCode = std::nullopt;
  [self show];
  [self ask];
}

- (void)show {
  const orvane::ProtectionState state = orvane::state_of(_protection);
  [_window showExtension:_extension.state
                  filter:_filter.state != nil ? _filter.state
                                              : @(orvane::window_text(_protection, orvane::now_in_seconds()).c_str())
                    list:_list.state];
  [_menuBarItem showTitle:@(orvane::menu_title(state).c_str()) isOn:state == orvane::ProtectionState::On];
  [_menuBarItem showList:_list.state isOn:_list.isOn hasSuspendedNames:_list.hasSuspendedNames];
}

- (void)activate:(id)sender {
  [_extension activate];
}

- (void)deactivate:(id)sender {
  [_filter removeThen:^{
    [_extension deactivate];
  }];
}

- (void)switchOn:(id)sender {
  [_filter switchOn];
}

- (void)switchOff:(id)sender {
  [_filter switchOff];
}

- (void)switchListOn:(id)sender {
  [_list switchOn];
}

- (void)switchListOff:(id)sender {
  [_list switchOff];
}

- (void)suspendList:(id)sender {
  [_list suspendThen:^(NSString* fault) {
    warn(@"The list is not suspended", fault);
  }];
}

- (void)resumeList:(id)sender {
  [_list resumeThen:^(NSString* fault) {
    warn(@"The list is not blocked again", fault);
  }];
}

- (void)openProfile:(id)sender {
  [[NSWorkspace sharedWorkspace] openURL:[[NSBundle mainBundle] URLForResource:@"browsers"
                                                                 withExtension:@"mobileconfig"]];
}

- (void)showWindow:(id)sender {
  [_window open];
  [[NSApplication sharedApplication] activateIgnoringOtherApps:YES];
}

@end
