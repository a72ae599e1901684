#import "companion/application/ApplicationDelegate.h"

int main() {
  @autoreleasepool {
    NSApplication* application = [NSApplication sharedApplication];
    // The application does not retain its delegate.
    ApplicationDelegate* delegate = [[[ApplicationDelegate alloc] init] autorelease];
    application.delegate = delegate;
    [application setActivationPolicy:NSApplicationActivationPolicyRegular];
    [application run];
  }
}
