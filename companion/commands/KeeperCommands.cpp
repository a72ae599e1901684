#include "companion/commands/KeeperCommands.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

#include "companion/commands/Status.h"
#include "companion/commands/Try.h"
#include "companion/keeper/Keeper.h"

namespace orvane {
namespace {

// The first of the folders in a variable that a service manager sets. Empty if it is not set.
std::string first_folder(const char* variable) {
  const char* given = std::getenv(variable);
  std::string directory = given == nullptr ? "" : given;
  directory.resize(std::min(directory.size(), directory.find(':')));
  return directory;
}

// The path of the keeper's state file: the path that --state gives; without --state, the file `state` in the folder
// $RUNTIME_DIRECTORY; if no service manager has set this variable, the default path.
std::string state_path(const CommonOptions& options, bool isGiven) {
  const std::string directory = first_folder("RUNTIME_DIRECTORY");
  return directory.empty() || isGiven ? options.keeperStatePath : directory + "/state";
}

// The path of the guard's file: in the folder $STATE_DIRECTORY, or beside the state file.
std::string guard_path(const std::string& statePath) {
  const std::string directory = first_folder("STATE_DIRECTORY");
  return directory.empty() ? statePath + ".guard" : directory + "/guard";
}

}  // namespace

void declare_keeper_commands(CommandSet& commands) {
  const CommonOptions& options = commands.options;
  commands
      .declare(commands.app, kServiceGroup, "status",
               "Show whether the list is in force, and the state of the services",
               [&options] { return show_status(options); })
      ->footer("Additional exit code: 3 the list is not in force.");

  auto host = std::make_shared<std::string>();
  auto catalogued = std::make_shared<SiteOptions>();
  CLI::App* tryCommand =
      commands.declare(commands.app, kServiceGroup, "try", "Show whether a host is blocked now, and why",
                       [&options, host, catalogued] { return try_hosts(options, *host, *catalogued); });
  tryCommand->add_option("HOST", *host, "A host name or URL, in any spelling that browsers accept")->type_name("");
  catalogued->declare(*tryCommand);
  tryCommand->footer(
      "The answer is about new connections of a browser. Exit codes: 0 blocked, 3 not blocked, 4 unknown. With --site\n"
      "or --category: 0 all hosts blocked, 3 some not blocked.");

  const auto keep = [&options, given = commands.app.get_option("--state")] {
    const std::string path = state_path(options, given->count() > 0);
    return run_keeper(
        {options.client, options.listPath, path, guard_path(path), options.dropInsPath, options.subscriptionsPath});
  };
  commands
      .declare(commands.app, kServiceGroup, "keep", "Run the keeper, the service that sends the list to the extension",
               keep)
      ->footer(
          "It sends the list after each start of the extension and each change of the file, and starts and ends\n"
          "suspensions and schedules on time. It also enforces locks and delays. SIGTERM, SIGINT or SIGHUP ends it.\n"
          "If a service manager sets $RUNTIME_DIRECTORY, the state file is there.");
}

}  // namespace orvane
