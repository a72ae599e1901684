#pragma once
#pragma GCC system_header

#include_next <Foundation/Foundation.h>

// Declarations that GNUstep's headers lack, as the SDK's NSTask.h, NSDictionary.h and objc.h have them.

#undef YES
#undef NO
#undef nil
#define YES __objc_yes
#define NO __objc_no
#define nil nullptr

@interface NSTask (Missing)
+ (NSTask*)launchedTaskWithExecutableURL:(NSURL*)url
                               arguments:(NSArray*)arguments
                                   error:(NSError**)error
                      terminationHandler:(void (^)(NSTask*))terminationHandler;
@end

@interface NSDictionary (Missing)
- (BOOL)writeToURL:(NSURL*)url error:(NSError**)error;
@end
