#pragma once

#import <Foundation/Foundation.h>

// Whoever shows the two switches. Called on the main thread after a text or state of a switch has changed.
@protocol SwitchObserver
- (void)switchChanged;
@end

// What the two have in common: the extension that they are about, and a text on how things stand. All on the main
// thread.
@interface Switch : NSObject {
 @protected
  NSString* _extension;  // its identifier

 @private
  NSString* _state;
  id<SwitchObserver> _observer;
}

// The observer is not kept.
- (instancetype)initWithExtension:(NSString*)identifier state:(NSString*)state observer:(id<SwitchObserver>)observer;

// A text for the user: how things stand, or what was asked last and what came of it.
@property(readonly, copy) NSString* state;

// Replaces the text and tells the observer.
- (void)show:(NSString*)state;

@end

// The text of a failure, in the given words; without any, in the system's.
NSString* failure_text(NSError* error, NSString* words);
