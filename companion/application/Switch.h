#pragma once

#import <Foundation/Foundation.h>

#include <cstdint>
#include <string>

// Shows the states of switches (see Switch below). A switch calls switchChanged on the main thread after its state has
// changed.
@protocol SwitchObserver
- (void)switchChanged;
@end

// The base class of ExtensionSwitch, FilterSwitch and ListSwitch. Keeps the extension's identifier, and the state of
// the extension, of the content filter or of the list as a text. Use this class on the main thread.
@interface Switch : NSObject {
 @protected
  NSString* _extension;  // the extension's identifier

 @private
  NSString* _state;
  id<SwitchObserver> _observer;
}

// Does not retain the observer.
- (instancetype)initWithExtension:(NSString*)identifier state:(NSString*)state observer:(id<SwitchObserver>)observer;

// For the user: the current state, or the outcome of the last request.
@property(readonly, copy) NSString* state;

// Sets the state and notifies the observer.
- (void)show:(NSString*)state;

@end

// The text that tells the user about a failure: the system's message, the error's domain and code, and what to do.
NSString* failure_text(NSError* error, const std::string& advice);
// The same. Other domains than `domain` number their errors differently, so their errors get the advice for unknown
// codes.
NSString* failure_text(NSError* error, NSString* domain, std::string (*advice)(int64_t code));
