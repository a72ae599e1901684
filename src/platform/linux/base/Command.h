#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// The outcome of a program that was run.
struct CommandResult {
  bool success = false;
  bool missing = false;  // the program is not installed
  std::string output;    // its standard output
  std::string error;     // why it failed, in one line: its standard error, if it wrote any
};

// The path of a program of the operating system, which is looked for in /usr/sbin, /sbin, /usr/bin and /bin only. Empty
// when it is not installed.
std::string find_command(const std::string& name);

// Runs a program of the operating system and waits for it, ten seconds at most. words[0] is its name, for
// find_command(); `input` is its standard input. The program does not inherit our descriptors, environment or signal
// mask, and signals from the terminal do not reach it. Thread-safe.
CommandResult run_command(const std::vector<std::string>& words, std::string_view input = {});

}  // namespace orvane
