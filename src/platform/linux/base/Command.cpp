#include "platform/linux/base/Command.h"

#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "platform/files/Descriptor.h"
#include "platform/files/Files.h"
#include "platform/linux/base/Paths.h"

namespace orvane {
namespace {

// A new file in memory that contains the text. A program that run_command() starts gets such files as its standard
// streams. With pipes, the program and run_command() could wait for each other forever.
Descriptor file_with(std::string_view text) {
  Descriptor file(memfd_create("orvane-command", MFD_CLOEXEC));
  if (!file || !write_all(file.get(), text)) return {};
  lseek(file.get(), 0, SEEK_SET);
  return file;
}

std::string text_of(const Descriptor& file) {
  lseek(file.get(), 0, SEEK_SET);
  return read_up_to(file.get(), SIZE_MAX).value_or("");
}

// Returns 0, or an error number.
int spawn(const std::string& path, const std::vector<std::string>& words, const int (&standard)[3], pid_t& process) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int i = 0; i < 3; ++i) posix_spawn_file_actions_adddup2(&actions, standard[i], i);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);

  // The extension blocks the signals that end it and ignores SIGPIPE; the program must inherit neither setting. The
  // program gets its own process group: otherwise a Ctrl-C for the extension would also end a program that is removing
  // the kernel rules.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int number : {SIGPIPE, SIGTERM, SIGINT, SIGHUP}) sigaddset(&defaults, number);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

  std::vector<char*> arguments(words.size() + 1, nullptr);
  for (size_t i = 0; i < words.size(); ++i) arguments[i] = const_cast<char*>(words[i].c_str());
  char search[] = "PATH=/usr/sbin:/sbin:/usr/bin:/bin";
  char language[] = "LC_ALL=C";
  char* environment[] = {search, language, nullptr};
  const int error = posix_spawn(&process, path.c_str(), &actions, &attributes, arguments.data(), environment);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

// Waits until the process ends, and kills it if the limit is reached first. Returns the status from waitpid(2).
int wait_for_end(pid_t process, const CommandLimit& limit, bool& killed) {
  Descriptor end(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  pollfd entry{end.get(), POLLIN, 0};
  killed = end && wait_for({&entry, 1}, limit.stop, limit.end) != Wait::Ready;
  if (killed) kill(process, SIGKILL);
  int status = -1;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

std::string one_line(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

}  // namespace

std::string find_command(const std::string& name) {
  static const std::vector<std::string> folders = {"/usr/sbin", "/sbin", "/usr/bin", "/bin"};
  return find_program(name, folders);
}

CommandResult run_command(const std::vector<std::string>& words, std::string_view input, const CommandLimit& limit) {
  const std::string& name = words.front();
  const std::string path = find_command(name);
  if (path.empty()) return {false, true, {}, "the program " + name + " is not installed"};

  const Descriptor in = file_with(input);
  const Descriptor out = file_with({});
  const Descriptor problems = file_with({});
  if (!in || !out || !problems) return {false, false, {}, name + ": no memory for its input and output"};
  pid_t process = 0;
  if (int error = spawn(path, words, {in.get(), out.get(), problems.get()}, process)) {
    return {false, false, {}, name + " cannot be run: " + std::generic_category().message(error)};
  }
  bool killed = false;
  const int status = wait_for_end(process, limit, killed);
  if (killed) return {false, false, {}, name + " did not end in time"};
  if (status == 0) return {true, false, text_of(out), {}};
  std::string reason = one_line(text_of(problems));
  if (reason.empty()) {
    reason = WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                               : "ended by signal " + std::to_string(WTERMSIG(status));
  }
  return {false, false, {}, name + " failed: " + reason};
}

}  // namespace orvane
