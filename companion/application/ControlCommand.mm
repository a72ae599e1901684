#import "companion/application/ControlCommand.h"

#include <Block.h>

namespace {

NSString* text_of_pipe(NSPipe* pipe) {
  NSData* bytes = [[pipe fileHandleForReading] readDataToEndOfFile];
  return [[[NSString alloc] initWithData:bytes encoding:NSUTF8StringEncoding] autorelease];
}

}  // namespace

@implementation ControlCommand

+ (void)run:(NSString*)path
    arguments:(NSArray*)arguments
      timeout:(NSTimeInterval)seconds
         then:(void (^)(int exitCode, NSString* output, NSString* error))handler {
  ControlCommand* command = [[[self alloc] init] autorelease];
  command->_handler = Block_copy(handler);
  command->_task = [[NSTask alloc] init];
  [command->_task setLaunchPath:path];
  [command->_task setArguments:arguments];
  [command->_task setStandardOutput:[NSPipe pipe]];
  [command->_task setStandardError:[NSPipe pipe]];
  [command->_task setStandardInput:[NSFileHandle fileHandleWithNullDevice]];
  [command performSelectorInBackground:@selector(work) withObject:nil];
  // The command is retained until the time is over, so it still exists when the process has ended.
  [command performSelector:@selector(end) withObject:nil afterDelay:seconds];
}

- (void)dealloc {
  [_task release];
  Block_release(_handler);
  [super dealloc];
}

// Runs on a thread of its own, because reading waits until the process has ended.
- (void)work {
  @autoreleasepool {
    NSArray* result = nil;
    @try {
      [_task launch];
      NSString* output = text_of_pipe([_task standardOutput]);
      NSString* error = text_of_pipe([_task standardError]);
      [_task waitUntilExit];
      result = @[ @([_task terminationStatus]), output, error ];
    } @catch (NSException* exception) {
      result = @[ @(-1), @"", [exception reason] ];
    }
    [self performSelectorOnMainThread:@selector(finish:) withObject:result waitUntilDone:NO];
  }
}

- (void)finish:(NSArray*)result {
  [NSObject cancelPreviousPerformRequestsWithTarget:self selector:@selector(end) object:nil];
  if (_isLate) result = @[ @(-1), @"", @"no answer in time" ];
  _handler([[result objectAtIndex:0] intValue], [result objectAtIndex:1], [result objectAtIndex:2]);
}

- (void)end {
  _isLate = [_task isRunning];
  if (_isLate) [_task terminate];
}

@end
