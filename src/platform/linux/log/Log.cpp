#include "platform/Log.h"

#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <utility>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include "platform/Bundle.h"
#include "platform/files/Files.h"
#include "platform/linux/log/Journal.h"

namespace orvane {

// One object for each pair of subsystem and category. The objects are never freed, because the pairs are few. The core
// calls os_log_create() for each flow, but only the first call for a pair makes an object; each later call finds this
// object in the table.
class LogHandle {
 public:
  LogHandle(std::string_view subsystem, std::string_view category);

  bool keeps(LogLevel level) const { return (kept_ >> static_cast<unsigned>(level) & 1) != 0; }
  const std::string& subsystem() const { return subsystem_; }
  const std::string& category() const { return category_; }

 private:
  std::string subsystem_, category_;
  unsigned kept_;  // one bit for each level: 1 if the log keeps the level
};

void retain(const LogHandle*) {}
void release(const LogHandle*) {}

namespace {

constexpr unsigned bit(LogLevel level) { return 1U << static_cast<unsigned>(level); }
constexpr unsigned kKeptByDefault = bit(LogLevel::Default) | bit(LogLevel::Error);
constexpr std::string_view kDefaultOptions = "DEFAULT-OPTIONS";

// The levels that a category's preferences enable, in macOS's form: { "Level": { "Enable": "Debug" } }. Nothing when
// the preferences set no level.
std::optional<unsigned> kept_by(const Value* preferences) {
  const Value* level = preferences == nullptr ? nullptr : preferences->find("Level");
  const Value* enable = level == nullptr ? nullptr : level->find("Enable");
  if (enable == nullptr) return std::nullopt;
  if (enable->asString() == "Default") return kKeptByDefault;
  if (enable->asString() == "Info") return kKeptByDefault | bit(LogLevel::Info);
  if (enable->asString() == "Debug") return kKeptByDefault | bit(LogLevel::Info) | bit(LogLevel::Debug);
  return std::nullopt;
}

// The levels that a log keeps. The default log has neither subsystem nor category; it uses the default options of the
// bundle's subsystem.
unsigned kept_levels(std::string_view subsystem, std::string_view category) {
  static const Value preferences = bundle_get_information(bundle_get_main(), "OSLogPreferences");
  static const Value identifier = bundle_get_information(bundle_get_main(), "CFBundleIdentifier");
  if (subsystem.empty()) subsystem = identifier.isString() ? identifier.asString() : kBundleIdentifier;
  const Value* own = preferences.find(subsystem);
  if (own == nullptr) return kKeptByDefault;
  std::optional<unsigned> kept = kept_by(own->find(category));
  if (!kept) kept = kept_by(own->find(kDefaultOptions));
  return kept.value_or(kKeptByDefault);
}

using Names = std::pair<std::string_view, std::string_view>;

struct NamesHash {
  size_t operator()(const Names& names) const {
    std::hash<std::string_view> hash;
    return hash(names.first) * 31 + hash(names.second);
  }
};

// The handles that os_log_create() returns, by subsystem and category. The keys are views of the strings in the
// handles. The table is never destroyed, because threads may log while the process exits.
struct HandleTable {
  std::shared_mutex mutex;
  std::unordered_map<Names, std::unique_ptr<LogHandle>, NamesHash> handles;
};

HandleTable& table() {
  static auto* shared = new HandleTable;
  return *shared;
}

constexpr std::array<const char*, 4> kLevelNames = {"default", "info", "debug", "error"};
constexpr std::array<const char*, 4> kPriorities = {"PRIORITY=5", "PRIORITY=6", "PRIORITY=7", "PRIORITY=3"};

// False if there is no journal, or if the journal does not accept the message.
bool write_to_journal(const LogHandle& handle, LogLevel level, std::string_view message) {
  // sd_journal_sendv(3) reports success even if no journal is running.
  if (::access(kJournalSocket, F_OK) != 0) return false;
  std::array<std::string, 5> fields = {"MESSAGE=" + std::string(message), kPriorities.at(static_cast<size_t>(level)),
                                       kJournalIdentifier, "SUBSYSTEM=" + handle.subsystem(),
                                       "CATEGORY=" + handle.category()};
  std::array<iovec, fields.size()> vectors{};
  for (size_t i = 0; i < fields.size(); ++i) vectors.at(i) = {fields.at(i).data(), fields.at(i).size()};
  const int count = handle.subsystem().empty() ? 3 : 5;  // the default log has no subsystem and no category
  return sd_journal_sendv(vectors.data(), count) >= 0;
}

// Appends a message so that text from outside (a host name, a process name) cannot control a terminal or look like
// another message. Lines after the first are indented. Control characters except tabs and line ends are written as
// \xNN; the characters U+0080 to U+009F (C1) count as control characters, too.
void append_printable(std::string& text, std::string_view message) {
  for (size_t i = 0; i < message.size(); ++i) {
    auto byte = static_cast<unsigned char>(message[i]);
    bool startsC1 = byte == 0xc2 && i + 1 < message.size() && static_cast<unsigned char>(message[i + 1]) < 0xa0;
    if (byte == '\n') {
      text += "\n    ";
    } else if ((byte < 0x20 && byte != '\t') || byte == 0x7f || startsC1) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02x", startsC1 ? static_cast<unsigned char>(message[++i]) : byte);
      text += escape;
    } else {
      text += message[i];
    }
  }
}

std::string timestamp() {
  std::timespec now{};
  std::timespec_get(&now, TIME_UTC);
  std::tm parts{};
  localtime_r(&now.tv_sec, &parts);
  char date[32], text[48];
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &parts);
  std::snprintf(text, sizeof text, "%s.%03ld", date, now.tv_nsec / 1000000);
  return text;
}

// Writes the message with one write(2), so that messages of several threads do not mix.
void write_to_standard_error(const LogHandle& handle, LogLevel level, std::string_view message) {
  std::string line = timestamp() + " " + kLevelNames.at(static_cast<size_t>(level)) + " [";
  append_printable(line, handle.category().empty() ? "default" : handle.category());
  line += "] ";
  append_printable(line, message);
  line += '\n';
  write_all(STDERR_FILENO, line);
}

}  // namespace

LogHandle::LogHandle(std::string_view subsystem, std::string_view category)
    : subsystem_(subsystem), category_(category), kept_(kept_levels(subsystem, category)) {}

os_log_t os_log_create(const char* subsystem, const char* category) {
  Names names(subsystem, category);
  HandleTable& known = table();
  {
    std::shared_lock lock(known.mutex);
    auto entry = known.handles.find(names);
    if (entry != known.handles.end()) return os_log_t::adopt(entry->second.get());
  }
  auto handle = std::make_unique<LogHandle>(names.first, names.second);
  names = {handle->subsystem(), handle->category()};
  std::unique_lock lock(known.mutex);
  return os_log_t::adopt(known.handles.try_emplace(names, std::move(handle)).first->second.get());
}

const os_log_t& default_log() {
  static const auto* log = new os_log_t(os_log_t::adopt(new LogHandle("", "")));
  return *log;
}

bool os_log_type_enabled(const os_log_t& log, LogLevel level) { return (log ? log : default_log())->keeps(level); }

void log_detail::write(const os_log_t& log, LogLevel level, std::string_view format,
                       std::initializer_list<Argument> arguments) {
  const LogHandle& handle = *(log ? log : default_log());
  std::string text = render(format, arguments);
  std::string_view message = text;
  if (message.ends_with('\n')) message.remove_suffix(1);
  if (!write_to_journal(handle, level, message)) write_to_standard_error(handle, level, message);
}

}  // namespace orvane
