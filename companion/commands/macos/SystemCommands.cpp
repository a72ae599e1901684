#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "companion/commandline/CommandSet.h"
#include "companion/commands/MachineCommands.h"
#include "companion/list/Places.h"

namespace orvane {

// macOS has no orvane-fetcher, and no doctor.
void declare_system_commands(CommandSet& commands, CommonOptions& options) {
  // No installer makes the user's folder. If this fails, the command that needs the folder says why it cannot use it.
  // `sudo orvanectl` keeps the user's HOME. A folder that root made there would lock the user out.
  const std::filesystem::path folder = std::filesystem::path(places().list).parent_path();
  struct stat above {};
  if (stat(folder.parent_path().c_str(), &above) == 0 && above.st_uid == geteuid()) mkdir(folder.c_str(), S_IRWXU);
  declare_machine_commands(commands, options);
}

}  // namespace orvane
