#include "platform/Log.h"

#include <mutex>

#include "platform/Bundle.h"
#include "platform/StandIn.h"

namespace orvane {

ORVANE_STAND_IN_COUNTED(class, LogHandle, std::string)

static std::mutex mutex;

std::string stand_in::take_log(const std::string& category) {
  static const char kMarks[] = "*?:!";  // one character for each LogLevel, in the order of its enumerators
  std::lock_guard lock(mutex);
  std::string texts;
  for (const LogEntry& entry : std::exchange(log.entries, {})) {
    if (!category.empty() && entry.category != category) continue;
    texts += (texts.empty() ? "" : " | ") + (category.empty() ? entry.category : "");
    if (category.empty() || entry.level != LogLevel::Debug) texts.append({kMarks[static_cast<int>(entry.level)], ' '});
    texts += entry.text;
  }
  return texts;
}

os_log_t os_log_create(const char* subsystem, const char* category) {
  const bool ours = subsystem == std::string_view(kBundleIdentifier);
  return os_log_t::adopt(new LogHandle(ours ? category : subsystem + std::string("/") + category));
}

const os_log_t& default_log() {
  static const os_log_t* const handle = new os_log_t(os_log_create(kBundleIdentifier, "default"));
  return *handle;
}

bool os_log_type_enabled(const os_log_t&, LogLevel level) { return !stand_in::log.disabled.contains(level); }

void log_detail::write(const os_log_t& log, LogLevel level, std::string_view format,
                       std::initializer_list<Argument> arguments) {
  const stand_in::LogEntry entry{level, (log ? log : default_log())->content,
                                 stand_in::heldLocks + render(format, arguments)};
  {
    std::lock_guard lock(mutex);
    stand_in::log.entries.push_back(entry);
  }
  stand_in::trace("log " + entry.text);
  if (stand_in::log.hook) stand_in::log.hook(entry);
}

}  // namespace orvane
