#include "platform/Log.h"

#include "platform/Counted.h"

namespace orvane {

class LogHandle : public stand_in::Counted {
 public:
  LogHandle(const char* subsystemName, const char* categoryName)
      : Counted("LogHandle"), subsystem(subsystemName), category(categoryName) {}

  std::string subsystem, category;
};

ORVANE_STAND_IN_COUNTED(LogHandle)

namespace {

std::mutex mutex;

}  // namespace

stand_in::LogState& stand_in::log() {
  static LogState state{
      {{LogLevel::Default, true}, {LogLevel::Info, true}, {LogLevel::Debug, true}, {LogLevel::Error, true}},
      {},
      nullptr};
  return state;
}

std::vector<std::string> stand_in::take_log() {
  std::lock_guard lock(mutex);
  std::vector<std::string> texts;
  for (const LogEntry& entry : log().entries) {
    texts.push_back(entry.category + (entry.level == LogLevel::Error ? "! " : ": ") + entry.text);
  }
  log().entries.clear();
  return texts;
}

os_log_t os_log_create(const char* subsystem, const char* category) {
  return os_log_t::adopt(new LogHandle(subsystem, category));
}

const os_log_t& default_log() {
  static const os_log_t* const handle = new os_log_t(os_log_create("", "default"));
  return *handle;
}

bool os_log_type_enabled(const os_log_t&, LogLevel level) { return stand_in::log().enabled[level]; }

void log_detail::write(const os_log_t& log, LogLevel level, std::string_view format,
                       std::initializer_list<Argument> arguments) {
  const LogHandle& handle = log ? *log : *default_log();
  stand_in::LogEntry entry{level, handle.category, render(format, arguments), stand_in::mutexes_held()};
  {
    std::lock_guard lock(mutex);
    stand_in::log().entries.push_back(entry);
  }
  stand_in::trace("log " + entry.text);
  if (stand_in::log().hook) stand_in::log().hook(entry);
}

}  // namespace orvane
