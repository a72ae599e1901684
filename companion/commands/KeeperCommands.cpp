#include "companion/commands/KeeperCommands.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

#include "companion/commands/Status.h"
#include "companion/commands/Try.h"
#include "companion/keeper/Keeper.h"
#include "companion/keeper/KeeperState.h"

namespace orvane {
namespace {

constexpr const char* kGroup = "The service";

// A service manager's directory for the state, unless one was named.
std::string state_path(const CommonOptions& options) {
  const char* given = std::getenv("RUNTIME_DIRECTORY");
  std::string directory = given == nullptr ? "" : given;
  directory.resize(std::min(directory.size(), directory.find(':')));
  return directory.empty() || options.keeperStatePath != kKeeperStatePath ? options.keeperStatePath
                                                                          : directory + "/state";
}

}  // namespace

void declare_keeper_commands(CommandSet& commands) {
  const CommonOptions& options = commands.options;
  commands
      .declare(commands.app, kGroup, "status", "Show whether the list is in force, and what the services do",
               [&options] { return show_status(options); })
      ->footer("Exit codes besides the usual: 3 the list is not in force.");

  auto host = std::make_shared<std::string>();
  CLI::App* tryCommand = commands.declare(commands.app, kGroup, "try", "Tell whether a host is blocked now, and why",
                                          [&options, host] { return try_host(options, *host); });
  tryCommand->add_option("HOST", *host, "In any spelling that a browser takes")->required()->type_name("");
  tryCommand->footer(
      "What it says holds for a browser that connects anew. Exit codes besides the usual: 0 blocked, 3 not blocked,\n"
      "4 unknown.");

  commands
      .declare(commands.app, kGroup, "keep", "Keep the list in the extension: the service that does it",
               [&options] {
                 return run_keeper({options.client, options.listPath, state_path(options)});
               })
      ->footer(
          "It sends the list after every start of the extension and every change of the file, and carries out\n"
          "suspensions, until it is told to end (SIGTERM, SIGINT). The state goes to $RUNTIME_DIRECTORY where a "
          "service\n"
          "manager sets that.");
}

}  // namespace orvane
