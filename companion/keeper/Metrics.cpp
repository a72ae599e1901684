#include "companion/keeper/Metrics.h"

#include <filesystem>
#include <functional>
#include <utility>
#include <vector>

#include "companion/keeper/KeeperLog.h"
#include "companion/text/Input.h"
#include "platform/files/Files.h"

namespace orvane {
namespace {

constexpr mode_t kReadableByAll = 0644;  // the user of Prometheus' node exporter reads the file

using Labels = std::vector<std::pair<const char*, std::string>>;

// Escapes backslashes and quotes, as the format requires. The format is UTF-8, but a file's name may not be, so
// printable() comes first.
std::string escaped(const std::string& value) {
  std::string text;
  for (const char c : printable(value, false)) {
    if (c == '\\' || c == '"') text += '\\';
    text += c;
  }
  return text;
}

// The lines of one metric.
class Metric {
 public:
  Metric(std::string& text, const char* name, const char* help) : text_(text), name_(name) {
    text_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " gauge\n";
  }
  void add(const Labels& labels, int64_t value) {
    text_ += name_;
    const char* between = "{";
    for (const auto& [label, content] : labels) {
      text_.append(between).append(label).append("=\"").append(escaped(content)).append("\"");
      between = ",";
    }
    text_ += (labels.empty() ? " " : "} ") + std::to_string(value) + "\n";
  }

 private:
  std::string& text_;
  const std::string name_;
};

// A list, and the labels that identify it.
struct List {
  Labels labels;
  KeeperState::ListState state;
};

std::vector<List> lists_of(const KeeperState& state) {
  KeeperState::ListState own;
  own.path = state.listPath;
  own.isInForce = own.isSuspendable = true;
  own.names = state.sites;
  own.badLines = state.badLines;
  own.modified = state.listModified;
  own.error = state.listError;
  std::vector<List> lists{{{{"kind", "machine"}, {"list", own.path}}, own}};
  for (const auto& list : state.readOnlyLists) {
    lists.push_back({{{"kind", list.isDropIn ? "drop-in" : "subscription"}, {"list", list.path}}, list});
  }
  return lists;
}

std::string text_of(const KeeperState& state) {
  std::string text;
  const std::vector<List> lists = lists_of(state);
  const auto addForLists = [&](const char* name, const char* help, const std::function<int64_t(const List&)>& value) {
    Metric metric(text, name, help);
    for (const List& list : lists) metric.add(list.labels, value(list));
  };
  Metric(text, "orvane_build_info", "The version of the keeper.").add({{"version", state.version}}, 1);
  Metric(text, "orvane_extension_connected", "Whether the keeper has a connection to the extension.")
      .add({}, state.connected ? 1 : 0);
  const bool isInForce = state.connected && !state.listError && !state.extensionError && state.sentVersion &&
                         state.sentVersion == state.listVersion;
  Metric(text, "orvane_list_in_force", "Whether the extension has the current version of the machine's list.")
      .add({}, isInForce ? 1 : 0);
  Metric(text, "orvane_names_in_force", "How many names the extension has from the keeper.")
      .add({}, static_cast<int64_t>(state.sentNames));
  addForLists("orvane_list_names", "How many sites the list has.",
              [](const List& list) { return static_cast<int64_t>(list.state.names); });
  addForLists("orvane_list_bad_lines", "How many lines of the list are ignored because they are bad.",
              [](const List& list) { return static_cast<int64_t>(list.state.badLines); });
  addForLists("orvane_list_ok", "Whether the list's file could be read, and the keeper sends the list.",
              [&](const List& list) { return state.sends(list.state) && !list.state.error ? 1 : 0; });
  {
    Metric changed(text, "orvane_list_changed_timestamp_seconds", "When the list's file was last changed.");
    for (const List& list : lists) {
      if (list.state.modified) changed.add(list.labels, list.state.modified->time_since_epoch().count());
    }
  }
  if (lists.size() == 1) return text;
  Metric info(text, "orvane_list_info", "The SHA-256 digest of the file of a read-only list.");
  for (List list : lists) {
    if (list.state.sha256.empty()) continue;
    list.labels.emplace_back("sha256", list.state.sha256);
    info.add(list.labels, 1);
  }
  return text;
}

}  // namespace

MetricsFile::MetricsFile(const std::string& statePath)
    : path_((std::filesystem::path(statePath).parent_path() / "metrics.prom").string()) {}

void MetricsFile::write(const KeeperState& state) {
  std::string text = text_of(state);
  if (text == text_) return;
  const auto error = replace_file(path_, "metrics.prom.new", text, kReadableByAll);
  if (error && !isFaultLogged_)
    keeper_log(LogLevel::Warning, "cannot write: " + in_quotes(path_) + ": " + error.message());
  isFaultLogged_ = static_cast<bool>(error);
  if (!error) text_ = std::move(text);
}

}  // namespace orvane
