#include "companion/commands/MachineCommands.h"

#include "companion/commands/GroupCommands.h"
#include "companion/commands/KeeperCommands.h"
#include "companion/commands/ListCommands.h"
#include "companion/list/Places.h"
#include "companion/sites/SiteCommands.h"

namespace orvane {

void declare_machine_commands(CommandSet& commands, CommonOptions& options) {
  options.listPath = places().list;
  options.keeperStatePath = places().keeperState;
  options.cataloguePath = places().catalogue;
  options.dropInsPath = places().dropIns;
  options.subscriptionsPath = places().subscriptions;
  const auto takePath = [&](const char* option, std::string& path, const char* description) {
    commands.app.add_option(option, path, description)->type_name("PATH")->capture_default_str();
  };
  takePath("--list", options.listPath, "The list's file");
  takePath("--state", options.keeperStatePath, "The keeper's state file");
  takePath("--catalogue", options.cataloguePath, "The folder of the catalogue of sites");
  takePath("--drop-ins", options.dropInsPath, "The folder of the administrator's lists");
  takePath("--fetched", options.subscriptionsPath, "The folder of the fetched lists");
  declare_list_commands(commands);
  declare_site_commands(commands);
  declare_group_commands(commands);
  declare_keeper_commands(commands);
}

}  // namespace orvane
