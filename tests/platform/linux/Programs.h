#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/ApplicationIndex.h"

namespace orvane {

// A folder with programs of a test's own; goes with it.
class Folder {
 public:
  Folder() {
    char name[] = "/tmp/orvane-programs-XXXXXX";
    path_ = std::filesystem::canonical(::mkdtemp(name)).string();
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string path(const std::string& name) const { return path_ + "/" + name; }

  std::string write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
    std::ofstream(path(name)) << text;
    return path(name);
  }
  // Another file of the same content, as an installed program.
  std::string program(const std::string& name, const char* original = "/bin/sleep") const {
    std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
    std::filesystem::copy_file(original, path(name));
    return path(name);
  }
  std::string link(const std::string& name, const std::string& target) const {
    std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
    std::filesystem::create_symlink(target, path(name));
    return path(name);
  }
  std::string entry(const std::string& id, const std::string& exec, const std::string& more = "") const {
    return write("entries/" + id + ".desktop",
                 "[Desktop Entry]\nType=Application\nName=x\nExec=" + exec + "\n" + more + "\n");
  }
  ApplicationFolders folders() const {
    return {{path("local-entries"), path("entries")}, {path("bin")}, {path("lib"), path("opt")}};
  }

 private:
  std::string path_;
};

// A running program, ended with its children.
class RunningProgram {
 public:
  explicit RunningProgram(std::vector<std::string> words) {
    std::vector<char*> arguments(words.size() + 1);  // the last one null
    std::transform(words.begin(), words.end(), arguments.begin(), [](std::string& word) { return word.data(); });
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    EXPECT_EQ(0, posix_spawn(&pid_, arguments[0], nullptr, &attributes, arguments.data(), environ)) << words[0];
    posix_spawnattr_destroy(&attributes);
  }
  ~RunningProgram() { end(); }
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  pid_t pid() const { return pid_; }

  // Ends it and leaves it unnoticed by its parent, until end().
  void endUnnoticed() const {
    ::kill(pid_, SIGKILL);
    siginfo_t information;
    ::waitid(P_PID, static_cast<id_t>(pid_), &information, WEXITED | WNOWAIT);
  }
  void end() {
    if (pid_ <= 0) return;
    ::kill(-pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }

 private:
  pid_t pid_ = 0;
};

// Waits until the condition holds, for ten seconds at most.
template <class Condition>
bool eventually(Condition condition) {
  for (int i = 0; i < 1000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

}  // namespace orvane
