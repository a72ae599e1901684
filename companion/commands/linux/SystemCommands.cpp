#include <memory>

#include "companion/client/ExtensionBundle.h"
#include "companion/commandline/CommandSet.h"
#include "companion/commands/DoctorCommands.h"
#include "companion/commands/MachineCommands.h"
#include "companion/commands/SubscriptionCommands.h"
#include "companion/statistics/Statistics.h"

namespace orvane {
namespace {

void declare_statistics_command(CommandSet& commands) {
  auto given = std::make_shared<StatisticsOptions>();
  CLI::App* command =
      commands.declare(commands.app, kServiceGroup, "statistics", "Print how often which hosts were blocked",
                       [given, &options = commands.options] {
                         given->json = options.json;
                         return show_statistics(*given, DropJournal(), kPackageBundle, now_in_seconds());
                       });
  command->add_option("--since", given->since, "From when: today, yesterday, monday, 18:00, 2026-11-20, \"3 days ago\"")
      ->type_name("TIME")
      ->capture_default_str();
  command->add_option("--until", given->until, "Until when; without it, until now")->type_name("TIME");
  command->add_flag("--all", given->all, "Print all hosts, not only the 20 that were blocked most often");
  command->add_flag("--plot", given->plot, "Print a bar for each hour or day, too");
  command->footer(
      "The journal has these data only if the setting OrvaneRecordDrops is yes, as orvane-se(8) describes. Only root\n"
      "and the members of the groups systemd-journal and adm may read them.");
}

}  // namespace

void declare_system_commands(CommandSet& commands, CommonOptions& options) {
  commands.app
      .add_option("--socket", options.client.socket, "The extension's socket, instead of the default for --service")
      ->type_name("PATH");
  declare_machine_commands(commands, options);
  declare_subscription_commands(commands);
  declare_doctor_commands(commands);
  declare_statistics_command(commands);
}

}  // namespace orvane
