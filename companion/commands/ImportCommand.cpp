#include "companion/commands/ImportCommand.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "companion/commands/GroupState.h"
#include "companion/commands/WaitForKeeper.h"
#include "companion/list/ListFile.h"
#include "companion/list/ListImport.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/text/Output.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

struct Arguments {
  std::string file;
  bool subdomains = false;
  bool exactNames = false;
  bool replace = false;
  bool undo = false;
  std::optional<std::string> group;
};

// The file that records the last import into the list, for --undo.
std::string record_path(const CommonOptions& options) { return options.listPath + ".import"; }

// A progress bar on standard error, if that is a terminal. Erase the bar before any other output to standard error.
class ProgressBar {
 public:
  ProgressBar(size_t total, bool wanted) : total_(total), wanted_(wanted && isatty(STDERR_FILENO) == 1) {}
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;
  ~ProgressBar() { erase(); }

  void show(size_t bytes, const std::string& text) {
    constexpr size_t kWidth = 30;
    if (!wanted_) return;
    const size_t filled = total_ == 0 ? kWidth : std::min(bytes, total_) * kWidth / total_;
    const size_t percent = total_ == 0 ? 100 : std::min(bytes, total_) * 100 / total_;
    const std::string bar = std::string(filled, '#') + std::string(kWidth - filled, ' ');
    std::fprintf(stderr, "\r\x1b[K[%s] %3zu %%  %s", bar.c_str(), percent, text.c_str());
    std::fflush(stderr);
    shown_ = true;
  }
  void erase() {
    if (shown_) std::fputs("\r\x1b[K", stderr);
    shown_ = false;
  }

 private:
  size_t total_;
  bool wanted_;
  bool shown_ = false;
};

struct Rejection {
  size_t line;
  std::string text, fault;
};

struct Outcome {
  ImportedSites read;
  std::vector<Rejection> rejections;  // the first kMostRejections
  ImportCounts counts;
  std::vector<Group> delayed;  // groups with a delay that lose sites
  double seconds = 0;          // from the start until the list is written
  std::optional<bool> inForce;
};

// Those of the groups that have a delay.
std::vector<Group> delayed_groups(const BlockList& list, const std::set<std::string>& groups) {
  std::vector<Group> delayed;
  for (const Group& group : list.groups()) {
    if (groups.contains(group.name) && group.delay.count() > 0) delayed.push_back(group);
  }
  return delayed;
}

void print_delays(const std::vector<Group>& delayed) {
  for (const Group& group : delayed)
    std::printf("%s: its removed sites stay blocked for %s\n", group.name.c_str(), duration_text(group.delay).c_str());
}

void print_outcome(const Outcome& outcome) {
  const auto& [read, rejections, counts, delayed, seconds, inForce] = outcome;
  std::printf("%s, %s, in %.2f s\n", counted(read.lines, "line", "lines").c_str(),
              counted(read.sites.size(), "site", "sites").c_str(), seconds);
  std::printf("%zu added, %zu changed, %zu already on the list, %zu removed\n", counts.added, counts.changed,
              counts.unchanged, counts.removed);
  std::printf("%s, %zu skipped (localhost and the like), %zu rejected\n",
              counted(read.duplicates, "duplicate", "duplicates").c_str(), read.skipped, read.rejected);
  if (counts.groups > 0) std::printf("%s added or changed\n", counted(counts.groups, "group", "groups").c_str());
  print_delays(delayed);
  if (counts.hasChanges()) std::puts("To take this back: orvanectl import --undo");
}

void print_outcome_json(const Outcome& outcome) {
  const auto& [read, rejections, counts, delayed, seconds, inForce] = outcome;
  nlohmann::json rejectedLines = nlohmann::json::array();
  for (const auto& [line, text, fault] : rejections)
    rejectedLines.push_back({{"line", line}, {"text", text}, {"fault", fault}});
  print_json({{"lines", read.lines},
              {"sites", read.sites.size()},
              {"new", counts.added},
              {"changed", counts.changed},
              {"alreadyThere", counts.unchanged},
              {"takenOff", counts.removed},
              {"groups", counts.groups},
              {"duplicates", read.duplicates},
              {"passedOver", read.skipped},
              {"rejected", read.rejected},
              {"rejectedLines", std::move(rejectedLines)},
              {"seconds", seconds},
              {"inForce", json_or_null(inForce)}});
}

std::optional<Scope> wanted_scope(const Arguments& arguments) {
  if (arguments.subdomains) return Scope::Subdomains;
  if (arguments.exactNames) return Scope::ExactName;
  return std::nullopt;
}

ImportedSites read_file(const Arguments& arguments, const std::string& source, ProgressBar& bar, std::string_view text,
                        std::vector<Rejection>& rejections) {
  constexpr size_t kMostRejections = 1000;
  auto rejected = [&](size_t line, std::string_view what, const std::string& fault) {
    bar.erase();
    if (rejections.size() < kMostRejections) rejections.push_back({line, std::string(what), fault});
    print_error("not imported: " + source + ":" + std::to_string(line) + ": " + in_quotes(what) + ": " + fault);
  };
  auto progress = [&](size_t bytes, size_t lines) { bar.show(bytes, counted(lines, "line", "lines")); };
  try {
    return read_import(text, {wanted_scope(arguments), arguments.group}, rejected, progress);
  } catch (const InputError& error) {
    throw InputError("cannot import: " + source + ": " + error.what());
  }
}

// Whether the file has neither sites nor groups.
bool is_empty(const ImportedSites& read, const Arguments& arguments) {
  const Group& first = read.groups.front();
  const bool isPlain = first.name == kDefaultGroupName && has_same_settings(first, Group());
  return read.sites.empty() && read.groups.size() == 1 && (isPlain || arguments.group);
}

int import(const CommonOptions& options, const Arguments& arguments) {
  const auto started = std::chrono::steady_clock::now();
  const std::string source = arguments.file == "-" ? "standard input" : arguments.file;
  Outcome outcome;
  {
    const std::string text = read_input(arguments.file);
    ProgressBar bar(text.size(), !options.json);
    outcome.read = read_file(arguments, source, bar, text, outcome.rejections);
    // With --replace, an empty file or one with only comments empties the list. A file of which every line was rejected
    // is probably not a list.
    if (is_empty(outcome.read, arguments) && (!arguments.replace || outcome.read.rejected > 0))
      throw InputError("nothing was imported: " + source + ": it has no line with a host name: give a list of names");
  }
  for (const Group& group : outcome.read.groups) {
    if (arguments.replace) refuse_if_locked(options, group.name, "replace sites");
  }
  size_t sites = 0;
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    if (arguments.group) find_group(list, *arguments.group);
    outcome.counts = put_imported(list, outcome.read, arguments.replace);
    if (arguments.replace) outcome.delayed = delayed_groups(list, outcome.counts.weakenedGroups);
    sites = list.size();
    // The record is written before the list. If the process is killed in between, the record describes an import that
    // is not on the list, and take_back() then finds nothing to do.
    if (outcome.counts.hasChanges()) replace_list_text(record_path(options), outcome.counts.record);
    return outcome.counts.hasChanges();
  });
  for (const std::string& group : outcome.counts.unchangedGroups)
    print_error("settings not imported: " + in_quotes(group) +
                ": the group has sites already, so it keeps its settings: to change them: orvanectl group");
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  outcome.inForce = wait_for_keeper(options, version, sites);
  options.json ? print_outcome_json(outcome) : print_outcome(outcome);
  return kDone;
}

int undo(const CommonOptions& options) {
  UndoCounts counts;
  std::vector<Group> delayed;
  size_t sites = 0;
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    const std::string text = read_list_text(record_path(options));
    if (text.empty())
      throw InputError("nothing to undo: no import is recorded since the last undo: to remove the names of a file: " +
                       std::string("orvanectl unblock --from FILE"));
    const ImportRecord record = read_import_record(text);
    for (const Group& group : record.after.groups()) refuse_if_locked(options, group.name, "undo the import");
    counts = take_back(list, record);
    delayed = delayed_groups(list, counts.weakenedGroups);
    sites = list.size();
    replace_list_text(record_path(options), "");
    return counts.removed + counts.restored + counts.groups > 0;
  });
  const std::optional<bool> inForce = wait_for_keeper(options, version, sites);
  if (options.json) {
    print_json({{"removed", counts.removed},
                {"restored", counts.restored},
                {"groups", counts.groups},
                {"changedSince", counts.changedSince},
                {"inForce", json_or_null(inForce)}});
  } else {
    std::printf("%s removed, %zu restored, %zu left alone because you changed them since the import\n",
                counted(counts.removed, "site", "sites").c_str(), counts.restored, counts.changedSince);
    if (counts.groups > 0) std::printf("%s removed or restored\n", counted(counts.groups, "group", "groups").c_str());
    print_delays(delayed);
  }
  return kDone;
}

int run(const CommonOptions& options, const Arguments& arguments) {
  if (arguments.undo != arguments.file.empty()) throw InputError("bad command line: import: give a file, or --undo");
  return arguments.undo ? undo(options) : import(options, arguments);
}

}  // namespace

void declare_import_command(CommandSet& commands) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command = commands.declare(commands.app, kListGroup, "import", "Add the names of a file to the list",
                                       [&options = commands.options, arguments] { return run(options, *arguments); });
  command
      ->add_option("FILE", arguments->file,
                   "A file of names, hosts(5) lines or ||name^ rules; \"-\" for standard input")
      ->type_name("");
  CLI::Option* subdomains =
      command->add_flag("--subdomains", arguments->subdomains,
                        "Block all sites with their subdomains (the default except for hosts(5) lines)");
  command->add_flag("--exact", arguments->exactNames, "Block the exact names only (the default for hosts(5) lines)")
      ->excludes(subdomains);
  command->add_flag("--replace", arguments->replace, "Remove all other sites of the groups that the file has");
  command->add_option("--group", arguments->group, "The group of all names, instead of the groups that the file has")
      ->type_name("GROUP");
  command->add_flag("--undo", arguments->undo, "Take the last import back");
}

}  // namespace orvane
