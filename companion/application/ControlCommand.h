#pragma once

#import <Foundation/Foundation.h>
#include <sys/types.h>

#include <atomic>

// Runs orvanectl once, as a process of its own, because a call over XPC may wait for as long as the extension hangs.
// Use this class on the main thread.
@interface ControlCommand : NSObject {
 @private
  NSArray* _words;
  std::atomic<pid_t> _process;  // 0 if none runs
  bool _isLate;
  void (^_handler)(int exitCode, NSString* output, NSString* error);
}

// Starts the program at `path`. Calls the handler on the main thread when the program has ended, with what the program
// has printed. Ends a program that still runs after `seconds`. If the program had to be ended or cannot be started,
// calls the handler with the exit code -1 and the reason.
+ (void)run:(NSString*)path
    arguments:(NSArray*)arguments
      timeout:(NSTimeInterval)seconds
         then:(void (^)(int exitCode, NSString* output, NSString* error))handler;

@end
