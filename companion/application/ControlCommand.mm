#import "companion/application/ControlCommand.h"

#include <Block.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

extern "C" char** environ;

namespace {

// The ends of a pipe. A program that this process starts inherits neither of them.
struct Pipe {
  int from = -1, to = -1;

  Pipe() {
    int ends[2];
    if (pipe(ends) != 0) return;
    from = ends[0], to = ends[1];
    for (int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
  }
  ~Pipe() {
    close(from);
    close(to);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
};

// Reads both pipes to their ends, at the same time, because a program waits while a pipe is full.
void read_both(const std::array<int, 2>& files, const std::array<std::string*, 2>& texts) {
  std::array<pollfd, 2> open{{{files[0], POLLIN, 0}, {files[1], POLLIN, 0}}};
  while (open[0].fd >= 0 || open[1].fd >= 0) {
    if (poll(open.data(), open.size(), -1) < 0 && errno != EINTR) return;
    for (size_t i = 0; i < open.size(); ++i) {
      if (open[i].fd < 0 || open[i].revents == 0) continue;
      char bytes[4096];
      const ssize_t count = read(open[i].fd, bytes, sizeof bytes);
      if (count > 0) texts[i]->append(bytes, static_cast<size_t>(count));
      if (count == 0 || (count < 0 && errno != EINTR)) open[i].fd = -1;
    }
  }
}

NSString* string_of(const std::string& text) {
  NSString* string = [NSString stringWithUTF8String:text.c_str()];
  return string != nil ? string : @"";
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

// Runs on a thread of its own, because reading waits until the process has ended. NSTask is not used, because two
// threads cannot safely wait for one task in GNUstep.
- (void)work {
  @autoreleasepool {
    std::vector<char*> words;
    for (NSString* word in _words) words.push_back(const_cast<char*>([word UTF8String]));
    words.push_back(nullptr);
    std::string output, error;
    int fault = 0;
    {
      Pipe out, err;
      posix_spawn_file_actions_t actions;
      posix_spawn_file_actions_init(&actions);
      posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
      posix_spawn_file_actions_adddup2(&actions, out.to, STDOUT_FILENO);
      posix_spawn_file_actions_adddup2(&actions, err.to, STDERR_FILENO);
      pid_t process = 0;
      fault = posix_spawn(&process, words[0], &actions, nullptr, words.data(), environ);
      posix_spawn_file_actions_destroy(&actions);
      if (fault == 0) {
        _process = process;
        close(std::exchange(out.to, -1));
        close(std::exchange(err.to, -1));
        read_both({out.from, err.from}, {&output, &error});
        // The process number stays in use until finish: calls waitpid(2), so end cannot kill another process.
        siginfo_t info;
        while (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) continue;
      }
    }
    if (fault != 0) error = std::strerror(fault);
    [self performSelectorOnMainThread:@selector(finish:)
                           withObject:@[ string_of(output), string_of(error) ]
                        waitUntilDone:NO];
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
