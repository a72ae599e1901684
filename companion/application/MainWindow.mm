#import "companion/application/MainWindow.h"

namespace {

constexpr CGFloat kStateWidth = 320;  // points
constexpr CGFloat kMargin = 20;

// `name`: what the text is about, for screen readers.
NSTextField* state_label(NSString* name, NSString* text = @"") {
  NSTextField* label = [NSTextField wrappingLabelWithString:text];
  label.preferredMaxLayoutWidth = kStateWidth;
  [label.widthAnchor constraintEqualToConstant:kStateWidth].active = YES;
  label.accessibilityLabel = name;
  return label;
}

}  // namespace

@implementation MainWindow {
  NSWindow* _window;
  NSTextField* _extensionState;
  NSTextField* _filterState;
  NSTextField* _listState;
  id<ApplicationActions, NSWindowDelegate> _target;
}

- (instancetype)initWithTarget:(id<ApplicationActions, NSWindowDelegate>)target {
  self = [super init];
  if (self != nil) {
    _target = target;
    [self makeWindow];
  }
  return self;
}

- (void)dealloc {
  _window.delegate = nil;
  [_extensionState release];
  [_filterState release];
  [_listState release];
  [_window release];
  [super dealloc];
}

// `label`: what the button does, for screen readers, which do not read the row's name with the title.
- (NSButton*)button:(NSString*)title label:(NSString*)label action:(SEL)action {
  NSButton* button = [NSButton buttonWithTitle:title target:_target action:action];
  button.accessibilityLabel = label;
  return button;
}

- (NSGridView*)makeRows {
  _extensionState = [state_label(@"State of the system extension") retain];
  _filterState = [state_label(@"State of the content filter") retain];
  _listState = [state_label(@"State of the list") retain];
  NSTextField* profile = state_label(
      @"Profile for browsers",
      @"Some browsers can hide host names from the filter. A profile keeps them from it: open it, then install it in "
      @"the system's settings.");
  NSGridView* rows = [NSGridView gridViewWithViews:@[
    @[
      [NSTextField labelWithString:@"System extension"], _extensionState,
      [self button:@"Activate" label:@"Activate the system extension" action:@selector(activate:)],
      [self button:@"Deactivate" label:@"Deactivate the system extension" action:@selector(deactivate:)]
    ],
    @[
      [NSTextField labelWithString:@"Content filter"], _filterState,
      [self button:@"Switch On" label:@"Switch the content filter on" action:@selector(switchOn:)],
      [self button:@"Switch Off" label:@"Switch the content filter off" action:@selector(switchOff:)]
    ],
    @[
      [NSTextField labelWithString:@"List"], _listState,
      [self button:@"Switch On" label:@"Switch the list on" action:@selector(switchListOn:)],
      [self button:@"Switch Off" label:@"Switch the list off" action:@selector(switchListOff:)]
    ],
    @[
      [NSTextField labelWithString:@"Browsers"], profile,
      [self button:@"Open Profile" label:@"Open the profile for browsers" action:@selector(openProfile:)]
    ]
  ]];
  rows.rowAlignment = NSGridRowAlignmentFirstBaseline;
  rows.translatesAutoresizingMaskIntoConstraints = NO;
  return rows;
}

- (void)makeWindow {
  NSGridView* rows = [self makeRows];
  _window = [[NSWindow alloc]
      initWithContentRect:NSZeroRect
                styleMask:NSWindowStyleMaskTitled | NSWindowStyleMaskClosable | NSWindowStyleMaskMiniaturizable
                  backing:NSBackingStoreBuffered
                    defer:NO];
  _window.releasedWhenClosed = NO;
  _window.title = @"OrvaneSE";
  _window.delegate = _target;
  NSView* content = _window.contentView;
  [content addSubview:rows];
  [NSLayoutConstraint activateConstraints:@[
    [rows.leadingAnchor constraintEqualToAnchor:content.leadingAnchor constant:kMargin],
    [rows.trailingAnchor constraintEqualToAnchor:content.trailingAnchor constant:-kMargin],
    [rows.topAnchor constraintEqualToAnchor:content.topAnchor constant:kMargin],
    [rows.bottomAnchor constraintEqualToAnchor:content.bottomAnchor constant:-kMargin]
  ]];
  [_window center];
}

- (void)showExtension:(NSString*)extension filter:(NSString*)filter list:(NSString*)list {
  _extensionState.stringValue = extension;
  _filterState.stringValue = filter;
  _listState.stringValue = list;
}

- (void)open {
  [_window makeKeyAndOrderFront:nil];
}

@end
