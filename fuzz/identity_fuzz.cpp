#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/linux/process/DesktopEntry.h"
#include "platform/linux/process/ProcessIdentity.h"
#include "platform/linux/process/ProcessInformation.h"

// A program or a package can choose the content of some texts by which the extension identifies processes: desktop
// entries, sandbox descriptions, names of control groups, and /proc/pid/stat, which has the process's name. Reads the
// input as each of these texts.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orvane;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const std::string& program : programs_of_desktop_entry(text)) runs_other_programs(program);
  parse_process_stat(text);
  // Identifiers are never empty.
  for (const auto& name : {flatpak_application(text), snap_of_path(text), snap_of_control_groups(text)}) {
    if (name && name->empty()) std::abort();
  }
  auto unit = unit_of_control_groups(text);
  if (unit && (unit->application.empty() || text.find(unit->path) == std::string_view::npos)) std::abort();
  return 0;
}
