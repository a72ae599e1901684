#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/base/SocketIO.h"

namespace orvane {

// The outcome of run_command().
struct CommandResult {
  bool success = false;
  bool missing = false;  // the program is not installed
  std::string output;    // the standard output of a program that succeeded
  std::string error;     // why the run failed, as one line; for example, what the program wrote to standard error
};

// When a running program is killed: at the deadline `end`, or as soon as the eventfd(2) `stop` is readable. If `stop`
// is -1, the program is killed only at the deadline.
struct CommandLimit {
  Deadline end = deadline_after(std::chrono::seconds(10));
  int stop = -1;
};

// Looks for a program of the operating system in /usr/sbin, /sbin, /usr/bin and /bin, in this order, and returns its
// path. Empty when the program is not installed.
std::string find_command(const std::string& name);

// Runs a program of the operating system and waits for it. words[0] is the program's name, which find_command() looks
// up, and the other words are the arguments; `input` becomes the standard input. The program does not inherit our
// descriptors, environment or signal mask, and signals from the terminal do not reach it. Thread-safe.
CommandResult run_command(const std::vector<std::string>& words, std::string_view input = {},
                          const CommandLimit& limit = {});

}  // namespace orvane
