#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// What a program that was run has left.
struct CommandResult {
  bool success = false;
  bool missing = false;  // there is no such program
  std::string output;    // what it wrote to its standard output
  std::string error;     // without success: why, in one line; what it wrote to its standard error where that tells
};

// Runs a program of the system's, named by its file name and looked for in the system's own folders alone, with
// `input` as its standard input, and waits for it, for ten seconds at most. It gets no descriptor, environment or
// signal mask of ours, and a signal from the terminal does not reach it. Thread-safe.
CommandResult run_command(const std::vector<std::string>& words, std::string_view input = {});

}  // namespace orvane
