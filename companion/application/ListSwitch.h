#pragma once

#import <Foundation/Foundation.h>

#import "companion/application/Switch.h"

// Switches the keeper of the list on and off, and shows whether the list is in force. The keeper is the program
// "orvanectl keep" in this application's bundle, and runs as a launchd agent of the user. Use this class on the main
// thread.
//
// From macOS 13 the system registers the agent that the bundle describes (SMAppService). Before macOS 13, this class
// writes the agent's property list to ~/Library/LaunchAgents and loads it with launchctl(1).
@interface ListSwitch : Switch {
 @private
  BOOL _isAsking;  // orvanectl runs, to find out whether the list is in force
}

// Does not retain the observer.
- (instancetype)initWithObserver:(id<SwitchObserver>)observer;

- (void)switchOn;
- (void)switchOff;

// Shows the current state now, and then from time to time while the list is switched on.
- (void)refresh;

@end
