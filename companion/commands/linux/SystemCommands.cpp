#include "companion/commands/CommandSet.h"
#include "companion/commands/DoctorCommands.h"
#include "companion/commands/GroupCommands.h"
#include "companion/commands/KeeperCommands.h"
#include "companion/commands/ListCommands.h"
#include "companion/commands/SiteCommands.h"
#include "companion/keeper/KeeperState.h"
#include "companion/list/ListFile.h"

namespace orvane {

void declare_system_commands(CommandSet& commands, CommonOptions& options) {
  options.listPath = kListPath;
  options.keeperStatePath = kKeeperStatePath;
  options.cataloguePath = kCataloguePath;
  commands.app
      .add_option("--socket", options.client.socket, "The extension's socket, instead of the default for --service")
      ->type_name("PATH");
  commands.app.add_option("--list", options.listPath, "The list's file")->type_name("PATH")->capture_default_str();
  commands.app.add_option("--state", options.keeperStatePath, "The keeper's state file")
      ->type_name("PATH")
      ->capture_default_str();
  commands.app.add_option("--catalogue", options.cataloguePath, "The folder of the catalogue of sites")
      ->type_name("PATH")
      ->capture_default_str();
  declare_list_commands(commands);
  declare_site_commands(commands);
  declare_group_commands(commands);
  declare_keeper_commands(commands);
  declare_doctor_commands(commands);
}

}  // namespace orvane
