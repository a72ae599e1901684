#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <utility>

#include "companion/client/Client.h"

namespace orvane {

// A command whose arguments have been read. Gives the exit code; throws InputError for what it refuses, any other
// exception for what it cannot do.
using Command = std::function<int()>;

// Options that every command takes.
struct CommonOptions {
  ClientOptions client;
  bool json = false;            // print results as JSON, for programs
  std::string listPath;         // the machine's list, and what its keeper tells of itself, where the system has
  std::string keeperStatePath;  // these
};

// The command line as it is being declared. Once it is parsed, `chosen` is the command to carry out.
struct CommandSet {
  CLI::App& app;
  const CommonOptions& options;
  Command& chosen;

  // A command `name` of `parent`, which is the whole program or a command with others beneath it. `group` is the
  // heading in the help text that it stands under.
  CLI::App* declare(CLI::App& parent, const char* group, const char* name, const char* description, Command command) {
    CLI::App* declared = parent.add_subcommand(name, description)->fallthrough()->group(group);
    declared->callback([&target = chosen, command = std::move(command)] { target = command; });
    return declared;
  }
};

// Adds what one system has besides the commands that speak to a running extension: its own options and commands. The
// options' values go to `options`, the same object as in `commands`.
void declare_system_commands(CommandSet& commands, CommonOptions& options);

}  // namespace orvane
