#pragma once

#import <Foundation/Foundation.h>

#include <optional>

#include "companion/application/ListState.h"
#import "companion/application/Switch.h"

// Switches the keeper of the list on and off, and shows whether the list is in force. The keeper is the program
// "orvanectl keep" in this application's bundle, and runs as a launchd agent of the user. Use this class on the main
// thread.
//
// From macOS 13 the system registers the agent that the bundle describes (SMAppService). Before macOS 13, this class
// writes the agent's property list to ~/Library/LaunchAgents and loads it with launchctl(1).
@interface ListSwitch : Switch {
 @private
  std::optional<orvane::ListState> _list;
  BOOL _isAsking;   // orvanectl runs, to find out the list's state
  BOOL _asksAgain;  // when orvanectl has ended, because the state may have changed
}

// Does not retain the observer.
- (instancetype)initWithObserver:(id<SwitchObserver>)observer;

- (void)switchOn;
- (void)switchOff;

// The keeper is switched on.
@property(readonly) BOOL isOn;
// Nothing until orvanectl has answered for the first time. While the keeper is off, the list is not in force.
@property(readonly) std::optional<orvane::ListState> list;
@property(readonly) BOOL hasSuspendedNames;

// Suspend the sites of the list for half an hour, and end their suspensions. `handler` gets a text that says why this
// has failed or is not in force, or an empty text.
- (void)suspendThen:(void (^)(NSString* fault))handler;
- (void)resumeThen:(void (^)(NSString* fault))handler;

// Shows the current state now, and then from time to time while the list is switched on.
- (void)refresh;

@end
