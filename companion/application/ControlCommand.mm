#import "companion/application/ControlCommand.h"

#include <Block.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/files/Files.h"

// macOS does not declare it.
extern "C" char** environ;  // NOLINT(readability-redundant-declaration)

namespace {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
// A file without a name, for what a program prints. With two pipes, the program and this process could wait for each
// other forever.
using Output = std::unique_ptr<std::FILE, CloseFile>;

NSString* text_in(const Output& output) {
  lseek(fileno(output.get()), 0, SEEK_SET);
  NSString* text = @(orvane::read_up_to(fileno(output.get()), SIZE_MAX).value_or("").c_str());
  return text != nil ? text : @"";
}

// Returns 0, or an error number.
int spawn(NSArray* arguments, const Output& output, const Output& error, pid_t* process) {
  std::vector<char*> words;
  for (NSString* word in arguments) words.push_back(const_cast<char*>([word UTF8String]));
  words.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, fileno(output.get()), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fileno(error.get()), STDERR_FILENO);
  const int fault = posix_spawn(process, words[0], &actions, nullptr, words.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return fault;
}

}  // namespace

@implementation ControlCommand

+ (void)run:(NSString*)path
    arguments:(NSArray*)arguments
      timeout:(NSTimeInterval)seconds
         then:(void (^)(int exitCode, NSString* output, NSString* error))handler {
  ControlCommand* command = [[[self alloc] init] autorelease];
  command->_handler = Block_copy(handler);
  command->_words = [[@[ path ] arrayByAddingObjectsFromArray:arguments] retain];
  [command performSelectorInBackground:@selector(work) withObject:nil];
  // The command is retained until the time is over, so it still exists when the process has ended.
  [command performSelector:@selector(end) withObject:nil afterDelay:seconds];
}

- (void)dealloc {
  [_words release];
  Block_release(_handler);
  [super dealloc];
}

// Runs on a thread of its own, because it waits until the process has ended. NSTask is not used, because two threads
// cannot safely wait for one task in GNUstep.
- (void)work {
  @autoreleasepool {
    const Output output(std::tmpfile()), error(std::tmpfile());
    pid_t process = 0;
    const int fault = output && error ? spawn(_words, output, error, &process) : errno;
    NSArray* texts = @[ @"", @(std::strerror(fault)) ];
    if (fault == 0) {
      _process = process;
      // The process number stays in use until finish: calls waitpid(2), so end cannot kill another process.
      siginfo_t info;
      while (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) continue;
      texts = @[ text_in(output), text_in(error) ];
    }
    [self performSelectorOnMainThread:@selector(finish:) withObject:texts waitUntilDone:NO];
  }
}

- (void)finish:(NSArray*)texts {
  [NSObject cancelPreviousPerformRequestsWithTarget:self selector:@selector(end) object:nil];
  int status = 0;
  const pid_t process = _process.exchange(0);
  const bool hasEnded = process != 0 && waitpid(process, &status, 0) == process && WIFEXITED(status);
  _handler(hasEnded ? WEXITSTATUS(status) : -1, [texts objectAtIndex:0],
           _isLate ? @"no answer in time" : [texts objectAtIndex:1]);
}

- (void)end {
  if (_process == 0) return;
  _isLate = true;
  kill(_process, SIGTERM);
}

@end
