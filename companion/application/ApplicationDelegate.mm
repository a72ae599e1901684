#import "companion/application/ApplicationDelegate.h"

#import "companion/application/ExtensionSwitch.h"
#import "companion/application/FilterSwitch.h"

namespace {

constexpr CGFloat kStateWidth = 320;  // points
constexpr CGFloat kMargin = 20;

NSTextField* state_label() {
  NSTextField* label = [NSTextField wrappingLabelWithString:@""];
  label.preferredMaxLayoutWidth = kStateWidth;
  [label.widthAnchor constraintEqualToConstant:kStateWidth].active = YES;
  return label;
}

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

}  // namespace

@implementation ApplicationDelegate {
  NSWindow* _window;
  NSTextField* _extensionState;
  NSTextField* _filterState;
  ExtensionSwitch* _extension;
  FilterSwitch* _filter;
}

- (void)dealloc {
  [_extension release];
  [_filter release];
  [_extensionState release];
  [_filterState release];
  [_window release];
  [super dealloc];
}

- (NSArray<NSView*>*)rowNamed:(NSString*)name
                        state:(NSTextField*)state
                        first:(NSString*)first
                       action:(SEL)firstAction
                       second:(NSString*)second
                       action:(SEL)secondAction {
  return @[
    [NSTextField labelWithString:name], state, [NSButton buttonWithTitle:first target:self action:firstAction],
    [NSButton buttonWithTitle:second target:self action:secondAction]
  ];
}

- (void)makeWindow {
  _extensionState = [state_label() retain];
  _filterState = [state_label() retain];
  NSGridView* grid = [NSGridView gridViewWithViews:@[
    [self rowNamed:@"System extension"
             state:_extensionState
             first:@"Activate"
            action:@selector(activate:)
            second:@"Deactivate"
            action:@selector(deactivate:)],
    [self rowNamed:@"Content filter"
             state:_filterState
             first:@"Switch On"
            action:@selector(switchOn:)
            second:@"Switch Off"
            action:@selector(switchOff:)]
  ]];
  grid.rowAlignment = NSGridRowAlignmentFirstBaseline;
  grid.translatesAutoresizingMaskIntoConstraints = NO;

  _window = [[NSWindow alloc]
      initWithContentRect:NSZeroRect
                styleMask:NSWindowStyleMaskTitled | NSWindowStyleMaskClosable | NSWindowStyleMaskMiniaturizable
                  backing:NSBackingStoreBuffered
                    defer:NO];
  _window.releasedWhenClosed = NO;
  _window.title = @"OrvaneSE";
  NSView* content = _window.contentView;
  [content addSubview:grid];
  [NSLayoutConstraint activateConstraints:@[
    [grid.leadingAnchor constraintEqualToAnchor:content.leadingAnchor constant:kMargin],
    [grid.trailingAnchor constraintEqualToAnchor:content.trailingAnchor constant:-kMargin],
    [grid.topAnchor constraintEqualToAnchor:content.topAnchor constant:kMargin],
    [grid.bottomAnchor constraintEqualToAnchor:content.bottomAnchor constant:-kMargin]
  ]];
}

- (void)applicationDidFinishLaunching:(NSNotification*)notification {
  [NSApplication sharedApplication].mainMenu = main_menu();
  [self makeWindow];
  NSString* identifier = [[NSBundle mainBundle] objectForInfoDictionaryKey:@"OrvaneSystemExtension"];
  _extension = [[ExtensionSwitch alloc] initWithExtension:identifier observer:self];
  _filter = [[FilterSwitch alloc] initWithExtension:identifier observer:self];
  [self switchChanged];
  [_filter refresh];
  [_window center];
  [_window makeKeyAndOrderFront:nil];
}

- (BOOL)applicationShouldTerminateAfterLastWindowClosed:(NSApplication*)sender {
  return YES;
}

- (void)switchChanged {
  _extensionState.stringValue = _extension.state;
  _filterState.stringValue = _filter.state;
}

- (void)activate:(id)sender {
  [_extension activate];
}

- (void)deactivate:(id)sender {
  [_filter remove];
  [_extension deactivate];
}

- (void)switchOn:(id)sender {
  [_filter switchOn];
}

- (void)switchOff:(id)sender {
  [_filter switchOff];
}

@end
