#pragma once

#include <CLI/CLI.hpp>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "companion/client/Client.h"

namespace orvane {

// Headings of the help text.
inline constexpr const char* kListGroup = "The list (changes are permanent)";
inline constexpr const char* kServiceGroup = "The services";
inline constexpr const char* kExtensionGroup = "The running extension (changes last until it ends or the list changes)";

// A command with its arguments. Returns the exit code. Throws InputError for invalid input, and another exception when
// the work fails.
using Command = std::function<int()>;

// Options of every command.
struct CommonOptions {
  ClientOptions client;
  bool json = false;  // print results as JSON
  // The paths of the machine's list, of the keeper's state file, and of folders (Places.h).
  std::string listPath;
  std::string keeperStatePath;
  std::string dropInsPath, subscriptionsPath;  // the folders of read-only lists
  std::string cataloguePath;                   // the folder with the sites of the package
};

// The path of a file beside the machine's list.
inline std::string path_beside_list(const CommonOptions& options, const char* name) {
  return std::filesystem::path(options.listPath).replace_filename(name);
}

// The command line, for the functions that declare its commands. Parsing the command line sets `chosen` to the command
// to run.
struct CommandSet {
  CLI::App& app;
  const CommonOptions& options;
  Command& chosen;

  // Declares the command `name` below `parent`, which is the program itself or a command that has commands of its own.
  // The help text lists the new command under the heading `group`.
  CLI::App* declare(CLI::App& parent, const char* group, const char* name, const char* description, Command command) {
    CLI::App* declared = parent.add_subcommand(name, description)->fallthrough()->group(group);
    declared->callback([&target = chosen, command = std::move(command)] { target = command; });
    return declared;
  }
};

// Declares the options and commands that exist only on this operating system. `options` is the object that
// `commands.options` refers to; this function may change it.
void declare_system_commands(CommandSet& commands, CommonOptions& options);

}  // namespace orvane
