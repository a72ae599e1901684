#include "platform/linux/base/Command.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "platform/linux/base/Descriptor.h"

namespace orvane {
namespace {

constexpr int kLongestRunMilliseconds = 10000;
constexpr const char* kFolders[] = {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"};

// Files in memory and not pipes: neither side ever waits for the other.
Descriptor file_with(std::string_view text) {
  Descriptor file(memfd_create("orvane-command", MFD_CLOEXEC));
  while (!text.empty()) {
    const ssize_t count = write(file.get(), text.data(), text.size());
    if (count < 0) return {};
    text.remove_prefix(static_cast<size_t>(count));
  }
  lseek(file.get(), 0, SEEK_SET);
  return file;
}

std::string text_of(const Descriptor& file) {
  std::string text;
  char buffer[16384];
  ssize_t count = 0;
  while ((count = pread(file.get(), buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0) {
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

std::string find_program(const std::string& name) {
  for (const char* folder : kFolders) {
    std::string path = folder + name;
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  return {};
}

// Returns 0, or an error number.
int spawn(const std::string& path, const std::vector<std::string>& words, const int (&standard)[3], pid_t& process) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int i = 0; i < 3; ++i) posix_spawn_file_actions_adddup2(&actions, standard[i], i);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);

  // The extension waits for its end signals with these blocked, and ignores SIGPIPE. A group of its own: a Ctrl-C that
  // ends the extension must not end the program that takes the rules away.
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

// Waits for the end, which it brings about itself when that takes too long. Returns the status as waitpid() gives it.
int wait_for(pid_t process, bool& timedOut) {
  Descriptor end(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  pollfd wait{end.get(), POLLIN, 0};
  int ready = 1;
  if (end) {
    do {
      ready = poll(&wait, 1, kLongestRunMilliseconds);
    } while (ready < 0 && errno == EINTR);
  }
  timedOut = ready == 0;
  if (timedOut) kill(process, SIGKILL);
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

CommandResult run_command(const std::vector<std::string>& words, std::string_view input) {
  const std::string& name = words.front();
  const std::string path = find_program(name);
  if (path.empty()) return {false, true, {}, "the program " + name + " is not installed"};

  const Descriptor in = file_with(input);
  const Descriptor out = file_with({});
  const Descriptor problems = file_with({});
  if (!in || !out || !problems) return {false, false, {}, name + ": no memory for its input and output"};
  pid_t process = 0;
  if (int error = spawn(path, words, {in.get(), out.get(), problems.get()}, process)) {
    return {false, false, {}, name + " cannot be run: " + std::generic_category().message(error)};
  }
  bool timedOut = false;
  const int status = wait_for(process, timedOut);
  if (timedOut) return {false, false, {}, name + " did not end within ten seconds"};
  if (status == 0) return {true, false, text_of(out), {}};
  std::string reason = one_line(text_of(problems));
  if (reason.empty()) {
    reason = WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                               : "ended by signal " + std::to_string(WTERMSIG(status));
  }
  return {false, false, {}, name + " failed: " + reason};
}

}  // namespace orvane
