#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/linux/process/ApplicationIndex.h"
#include "support/TemporaryFolder.h"

namespace orvane {

// A temporary folder with programs and desktop entries.
class ProgramFolder : public TemporaryFolder {
 public:
  std::string path(const std::string& name) const { return canonical(TemporaryFolder::path()).string() + "/" + name; }

  // Installs a program that sleeps, and returns its path.
  std::string program(const std::string& name) const {
    std::filesystem::copy_file("/bin/sleep", write(name, ""), std::filesystem::copy_options::overwrite_existing);
    return path(name);
  }
  // Writes a desktop entry. A command line "@NAME" means the program NAME in this folder.
  void entry(const std::string& id, std::string exec) const {
    if (exec.starts_with('@')) exec = '"' + path(exec.substr(1)) + '"';
    write("entries/" + id + ".desktop", "[Desktop Entry]\nType=Application\nNoDisplay=true\nExec=" + exec + "\n");
  }
  ApplicationFolders folders() const {
    return {{path("local-entries"), path("entries")}, {path("bin")}, {path("lib"), path("opt")}};
  }
};

// A running program. It is killed at the end of the scope.
struct RunningProgram {
  // `terminal`: a descriptor that becomes the program's standard input and output.
  explicit RunningProgram(std::string program, std::vector<std::string> arguments = {"100"}, int terminal = -1) {
    std::vector<char*> words = {program.data()};
    for (std::string& argument : arguments) words.push_back(argument.data());
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int own : {0, 1}) {
      if (terminal >= 0) posix_spawn_file_actions_adddup2(&actions, terminal, own);
    }
    const int error = posix_spawn(&pid, program.c_str(), &actions, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error(program);
  }
  ~RunningProgram() {
    end();
    ::waitpid(pid, nullptr, 0);
  }
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  // Kills the program. It stays a zombie until this object is destroyed.
  void end() const {
    ::kill(pid, SIGKILL);
    siginfo_t information;
    ::waitid(P_PID, static_cast<id_t>(pid), &information, WEXITED | WNOWAIT);
  }

  pid_t pid = 0;
};

}  // namespace orvane
