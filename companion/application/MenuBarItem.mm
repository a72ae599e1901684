#import "companion/application/MenuBarItem.h"

@implementation MenuBarItem {
  NSStatusItem* _item;
  NSMenuItem* _title;
}

- (instancetype)initWithTarget:(id<ApplicationActions, NSMenuDelegate>)target {
  self = [super init];
  if (self != nil) {
    NSMenu* menu = [[[NSMenu alloc] init] autorelease];
    menu.delegate = target;
    _title = [[menu addItemWithTitle:@"" action:nil keyEquivalent:@""] retain];
    [menu addItem:[NSMenuItem separatorItem]];
    [menu addItemWithTitle:@"Open OrvaneSE" action:@selector(showWindow:) keyEquivalent:@""].target = target;
    [menu addItemWithTitle:@"Quit OrvaneSE" action:@selector(terminate:) keyEquivalent:@""];
    _item = [[[NSStatusBar systemStatusBar] statusItemWithLength:NSSquareStatusItemLength] retain];
    _item.menu = menu;
  }
  return self;
}

- (void)dealloc {
  [[NSStatusBar systemStatusBar] removeStatusItem:_item];
  [_item release];
  [_title release];
  [super dealloc];
}

- (void)showTitle:(NSString*)title isOn:(BOOL)isOn {
  _title.title = title;
  // Screen readers read the description of the image.
  _item.button.image = [NSImage imageWithSystemSymbolName:isOn ? @"shield.fill" : @"shield.slash"
                                 accessibilityDescription:title];
  _item.button.toolTip = title;
}

@end
