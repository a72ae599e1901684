#import "companion/application/MenuBarItem.h"

@implementation MenuBarItem {
  NSStatusItem* _item;
  NSMenuItem* _title;
  NSMenuItem* _list;
  NSMenuItem* _suspend;
  NSMenuItem* _resume;
}

- (instancetype)initWithTarget:(id<ApplicationActions, NSMenuDelegate>)target {
  self = [super init];
  if (self != nil) {
    NSMenu* menu = [[[NSMenu alloc] init] autorelease];
    menu.delegate = target;
    _title = [[menu addItemWithTitle:@"" action:nil keyEquivalent:@""] retain];
    _list = [[menu addItemWithTitle:@"" action:nil keyEquivalent:@""] retain];
    [menu addItem:[NSMenuItem separatorItem]];
    _suspend = [[menu addItemWithTitle:@"Suspend for 30 Minutes" action:@selector(suspendList:)
                         keyEquivalent:@""] retain];
    _resume = [[menu addItemWithTitle:@"Block Again" action:@selector(resumeList:) keyEquivalent:@""] retain];
    for (NSMenuItem* item in @[ _suspend, _resume ]) {
      item.target = target;
      item.hidden = YES;
    }
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
  [_list release];
  [_suspend release];
  [_resume release];
  [super dealloc];
}

- (void)showTitle:(NSString*)title isOn:(BOOL)isOn {
  _title.title = title;
  // Screen readers read the description of the image.
  _item.button.image = [NSImage imageWithSystemSymbolName:isOn ? @"shield.fill" : @"shield.slash"
                                 accessibilityDescription:title];
  _item.button.toolTip = title;
}

- (void)showList:(NSString*)state isOn:(BOOL)isOn hasSuspendedNames:(BOOL)hasSuspendedNames {
  _list.title = [@"List: " stringByAppendingString:state];
  _suspend.hidden = !isOn;
  _resume.hidden = !isOn || !hasSuspendedNames;
}

@end
