#include "companion/commands/ImportCommand.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "companion/commands/WaitForKeeper.h"
#include "companion/list/ListFile.h"
#include "companion/list/ListImport.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

struct Arguments {
  std::string file;
  bool usualNames = false;
  bool exactNamesOnly = false;
  bool replace = false;
};

// A bar on standard error, where that is a terminal. Whoever writes there otherwise erases it first.
class ProgressBar {
 public:
  ProgressBar(size_t total, bool wanted) : total_(total), wanted_(wanted && isatty(STDERR_FILENO) == 1) {}
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;
  ~ProgressBar() { erase(); }

  void show(size_t bytes, const std::string& text) {
    constexpr size_t kWidth = 30, kAll = 100;
    if (!wanted_) return;
    const size_t filled = total_ == 0 ? kWidth : std::min(bytes, total_) * kWidth / total_;
    const size_t percent = total_ == 0 ? kAll : std::min(bytes, total_) * kAll / total_;
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

struct Outcome {
  ImportedSites read;
  ImportCounts counts;
  double seconds = 0;  // until the list's file was written
  std::optional<bool> inForce;
};

void print_outcome(const Outcome& outcome) {
  const auto& [read, counts, seconds, inForce] = outcome;
  std::printf("%zu lines, %zu sites, in %.2f s\n", read.lines, read.sites.size(), seconds);
  std::printf("%zu new, %zu changed, %zu there already", counts.added, counts.changed, counts.unchanged);
  std::puts(counts.removed > 0 ? (", " + std::to_string(counts.removed) + " taken off").c_str() : "");
  std::printf("%zu given more than once, %zu passed over (localhost and the like), %zu rejected\n", read.duplicates,
              read.skipped, read.rejected);
}

void print_outcome_json(const Outcome& outcome) {
  const auto& [read, counts, seconds, inForce] = outcome;
  print_json({{"lines", read.lines},
              {"sites", read.sites.size()},
              {"new", counts.added},
              {"changed", counts.changed},
              {"alreadyThere", counts.unchanged},
              {"takenOff", counts.removed},
              {"duplicates", read.duplicates},
              {"passedOver", read.skipped},
              {"rejected", read.rejected},
              {"filterRules", read.filterRules},
              {"seconds", seconds},
              {"inForce", inForce ? nlohmann::json(*inForce) : nlohmann::json()}});
}

std::optional<bool> wanted_names(const Arguments& arguments) {
  if (arguments.usualNames) return true;
  if (arguments.exactNamesOnly) return false;
  return std::nullopt;
}

ImportedSites read_file(const Arguments& arguments, const std::string& source, ProgressBar& bar,
                        std::string_view text) {
  auto rejected = [&](size_t line, std::string_view what, const std::string& fault) {
    bar.erase();
    print_error("not imported: " + source + ":" + std::to_string(line) + ": " + in_quotes(what) + ": " + fault);
  };
  auto progress = [&](size_t bytes, size_t lines) { bar.show(bytes, std::to_string(lines) + " lines"); };
  try {
    return read_import(text, wanted_names(arguments), rejected, progress);
  } catch (const InputError& error) {
    throw InputError("cannot import: " + source + ": " + error.what());
  }
}

int import(const CommonOptions& options, const Arguments& arguments) {
  const auto started = std::chrono::steady_clock::now();
  const std::string source = arguments.file == "-" ? "standard input" : arguments.file;
  Outcome outcome;
  {
    const std::string text = read_input(arguments.file);
    ProgressBar bar(text.size(), !options.json);
    outcome.read = read_file(arguments, source, bar, text);
    if (outcome.read.sites.empty())
      throw InputError("nothing imported: " + source + ": it has no line with a host name: give a list of names");
  }
  size_t sites = 0;
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    outcome.counts = put_imported(list, outcome.read, arguments.replace);
    sites = list.size();
    return arguments.replace || outcome.counts.added + outcome.counts.changed > 0;
  });
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  outcome.inForce = wait_for_keeper(options, version, sites);
  if (outcome.read.filterRules > 0)
    print_error(std::to_string(outcome.read.filterRules) + " filter rules imported without their subdomains: " +
                source + ": names match exactly: give each subdomain that matters");
  options.json ? print_outcome_json(outcome) : print_outcome(outcome);
  return kDone;
}

}  // namespace

void declare_import_command(CommandSet& commands) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command =
      commands.declare(commands.app, kListGroup, "import", "Add the names of a file to the list",
                       [&options = commands.options, arguments] { return import(options, *arguments); });
  command
      ->add_option("FILE", arguments->file,
                   "A list of names, hosts(5) lines or ||name^ rules; \"-\" for standard input")
      ->required()
      ->type_name("");
  CLI::Option* www =
      command->add_flag("--www", arguments->usualNames,
                        "Under their usual names, too: www.HOST and m.HOST (the default but for hosts(5) lines)");
  command
      ->add_flag("--no-www", arguments->exactNamesOnly, "Under the very names alone (the default for hosts(5) lines)")
      ->excludes(www);
  command->add_flag("--replace", arguments->replace, "Take everything else off the list");
}

}  // namespace orvane
