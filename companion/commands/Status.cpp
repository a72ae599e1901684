#include "companion/commands/Status.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "companion/browsers/BrowserRecognition.h"
#include "companion/client/ExtensionProbe.h"
#include "companion/client/UnitState.h"
#include "companion/commandline/GroupState.h"
#include "companion/commands/KeeperCommands.h"
#include "companion/commands/SubscriptionCommands.h"
#include "companion/keeper/KeeperState.h"
#include "companion/subscriptions/FetcherState.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/text/Output.h"
#include "companion/text/TimeText.h"
#include "companion/text/Version.h"

namespace orvane {
namespace {

// More suspensions would push the rest of the output off the screen.
constexpr size_t kSuspensionsShown = 10;

struct Status {
  ExtensionProbe extension;
  std::optional<KeeperState> keeper;
  std::optional<UnitState> extensionService, keeperService, fetcherService;
  std::optional<RecognitionFault> browsers;
  FetcherState fetcher;
  bool isFetcherRunning = false;
  std::string statePath;  // of the keeper's state

  // Whether the extension has names from the keeper, and recognises browsers.
  bool isFiltering() const {
    // `extension.answers` is not required: an extension that refuses this user may still answer the keeper.
    return keeper && keeper->connected && !extension.isUnresponsive && !(browsers && browsers->isInForce);
  }
  bool hasExtension() const { return isFiltering() && !keeper->extensionError; }  // it has the names of all lists
  bool isInForce(const KeeperState::ListState& list) const {
    return (hasExtension() || (isFiltering() && keeper->hasOnlyGuarded)) && keeper->sends(list);
  }
  bool isInForce() const { return hasExtension() && !keeper->listError && keeper->sentVersion == keeper->listVersion; }
};

nlohmann::json json_of(const std::optional<UnitState>& service) {
  if (!service) return nullptr;
  return {{"load", service->load},
          {"active", service->active},
          {"sub", service->sub},
          {"status", service->status},
          {"hiddenNames", service->hiddenNames},
          {"result", service->result},
          {"since", json_or_null(service->since)},
          {"restarts", service->restarts}};
}

// All lists of the keeper, each with the same members.
nlohmann::json lists_json(const Status& status, Moment now) {
  nlohmann::json lists = nlohmann::json::array();
  if (!status.keeper) return lists;
  const KeeperState& keeper = *status.keeper;
  const auto add = [&](const char* kind, const KeeperState::ListState& list) {
    nlohmann::json age;
    if (list.modified) age = std::max(now - *list.modified, std::chrono::seconds(0)).count();
    lists.push_back({{"path", list.path},
                     {"kind", kind},
                     {"names", list.names},
                     {"badLines", list.badLines},
                     {"sha256", list.sha256.empty() ? nlohmann::json() : nlohmann::json(list.sha256)},
                     {"modified", json_or_null(list.modified)},
                     {"age", age},
                     {"inForce", status.isInForce(list)},
                     {"error", json_or_null(list.error)}});
  };
  KeeperState::ListState own;
  own.path = keeper.listPath;
  own.names = keeper.sites;
  own.badLines = keeper.badLines;
  own.sha256 = keeper.listSha256;
  own.modified = keeper.listModified;
  const bool isRead = !keeper.listError || !keeper.listVersion.empty();
  own.isInForce = isRead && keeper.sentVersion == keeper.listVersion;
  own.isSuspendable = true;
  own.error = keeper.listError;
  add("machine", own);
  for (const auto& list : keeper.readOnlyLists) add(list.isDropIn ? "drop-in" : "subscription", list);
  return lists;
}

nlohmann::json subscriptions_json(const Status& status) {
  nlohmann::json subscriptions = nlohmann::json::array();
  for (const SubscriptionState& each : status.fetcher.subscriptions)
    subscriptions.push_back({{"name", each.name},
                             {"names", each.counts.names},
                             {"checked", json_or_null(each.checked)},
                             {"error", json_or_null(each.error)}});
  return subscriptions;
}

nlohmann::json json_of(const Status& status) {
  const ExtensionProbe& extension = status.extension;
  nlohmann::json answer = {{"answers", extension.answers}};
  if (extension.answers) {
    answer["changes"] = extension.changes;
  } else {
    answer["error"] = extension.error;
  }
  return {{"version", program_version()},
          {"inForce", status.isInForce()},
          {"lists", lists_json(status, now_in_seconds())},
          {"extension", std::move(answer)},
          {"noBrowserRecognised", status.browsers ? nlohmann::json(status.browsers->text) : nlohmann::json()},
          {"keeper", status.keeper ? to_json(*status.keeper) : nlohmann::json()},
          {"subscriptions", subscriptions_json(status)},
          {"subscriptionsError", json_or_null(status.fetcher.error)},
          {"services",
           {{kExtensionUnit, json_of(status.extensionService)},
            {kKeeperUnit, json_of(status.keeperService)},
            {kFetcherUnit, json_of(status.fetcherService)}}}};
}

// Prints the lines one below the other, with the heading in front of the first line.
void print_part(const char* heading, const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    std::printf("  %-10s %s\n", heading, line.c_str());
    heading = "";
  }
}

std::string service_text(const char* unit, const UnitState& service, Moment now) {
  if (service.load == "not-found") return std::string(unit) + ": not installed";
  std::string text = std::string(unit) + ": " +
                     coloured(service.text(), service.isRunning()   ? Colour::Good
                                              : service.hasFailed() ? Colour::Bad
                                                                    : Colour::Warning);
  if (service.since) text += " since " + local_text(*service.since, now);
  if (service.hasFailed()) text += ": see journalctl -u " + std::string(unit);
  if (!service.status.empty()) text += ", \"" + service.status + "\"";
  if (service.restarts > 0) text += ", restarted " + counted(service.restarts, "time", "times");
  return text;
}

std::vector<std::string> extension_lines(const Status& status, Moment now) {
  const ExtensionProbe& extension = status.extension;
  std::vector<std::string> lines;
  lines.push_back(extension.answers ? coloured("answers", Colour::Good) + ", " +
                                          counted(extension.changes, "change", "changes") + " since its start"
                                    : coloured("no answer", Colour::Bad) + ": " + extension.error);
  if (const auto& service = status.extensionService) {
    lines.push_back(service_text(kExtensionUnit, *service, now));
    if (service->hiddenNames > 0)
      lines.push_back(coloured(counted(service->hiddenNames, "connection", "connections") +
                                   " hid the host's name, so it was not filtered",
                               Colour::Warning) +
                      ": see orvanectl doctor");
  }
  if (const auto& fault = status.browsers)
    lines.push_back(coloured(fault->isInForce ? "no browser is recognised, so nothing is blocked"
                                              : "no browser will be recognised after its next start",
                             Colour::Bad) +
                    ": " + fault->text);
  return lines;
}

std::vector<std::string> keeper_lines(const Status& status, Moment now) {
  std::vector<std::string> lines;
  if (const auto& keeper = status.keeper) {
    lines.push_back(coloured("runs", Colour::Good) + " since " + local_text(keeper->started, now) + ", process " +
                    std::to_string(keeper->process));
    if (keeper->guardError)
      lines.push_back(coloured("cannot save locks and delays, so they end with the keeper", Colour::Bad) + ": " +
                      *keeper->guardError);
    if (!keeper->connected) lines.push_back(coloured("waits for the extension", Colour::Bad));
    // If orvanectl itself cannot reach the extension, extension_lines() already says why.
    if (keeper->extensionError && status.extension.answers) lines.push_back(*keeper->extensionError);
  } else if (status.keeperService && status.keeperService->isRunning()) {
    lines.push_back(coloured("unknown", Colour::Warning) + ": no running keeper has its state in " +
                    in_quotes(status.statePath) + " (--state names the file)");
  } else {
    lines.push_back(coloured("does not run", Colour::Bad) + ": the list is not sent: " + kStartKeeper);
  }
  if (auto service = status.keeperService) {
    // The lines of "Sent" say the same from the keeper's state. The service's text may be newer than this state.
    if (status.keeper) service->status.clear();
    lines.push_back(service_text(kKeeperUnit, *service, now));
  }
  return lines;
}

std::vector<std::string> list_lines(const KeeperState& keeper) {
  std::vector<std::string> lines;
  lines.push_back(keeper.listPath + ": " + counted(keeper.sites, "site", "sites") + ", " +
                  counted(keeper.names, "name", "names") + (keeper.readOnlyLists.empty() ? "" : " of all lists") +
                  " to block now");
  if (keeper.listError)
    lines.push_back(coloured("still uses the previous list", Colour::Bad) + ": " + *keeper.listError);
  if (keeper.badLines > 0)
    lines.push_back(coloured(counted(keeper.badLines, "bad line", "bad lines"), Colour::Warning) +
                    " ignored: see orvanectl list");
  return lines;
}

// One line for each read-only list, with its errors.
std::vector<std::string> read_only_lines(const KeeperState& keeper, Moment now) {
  std::vector<std::string> lines;
  for (const auto& list : keeper.readOnlyLists) {
    std::string line = in_quotes(list.path) + ": " + counted(list.names, "name", "names");
    if (list.modified) line += ", changed " + duration_text(now - *list.modified) + " ago";
    if (list.isSuspendable) line += ", suspendable";
    if (list.badLines > 0)
      line += ", " + coloured(counted(list.badLines, "bad line", "bad lines"), Colour::Warning) + " ignored";
    lines.push_back(std::move(line));
    if (list.error)
      lines.push_back(coloured(list.isInForce ? "still uses its previous version" : "not in force", Colour::Bad) +
                      ": " + *list.error);
  }
  return lines;
}

// One line for each group. None if the only group is the default group, and it is in force without an end, a lock or a
// pending change. A group that is in force is called "on", because the list as a whole may not be in force.
std::vector<std::string> group_lines(const KeeperState& keeper, Moment now) {
  std::vector<std::string> lines;
  for (const auto& group : keeper.groups) {
    const std::string until = group.nextChange  ? "until " + local_text(*group.nextChange, now)
                              : group.isInForce ? "now"
                                                : "until it is enabled";
    lines.push_back(group.name + (group.isInForce ? ": on " : ": off ") + until + guard_text(group, now));
  }
  const bool isPlain = lines.size() == 1 && lines.front() == std::string(kDefaultGroupName) + ": on now";
  return isPlain ? std::vector<std::string>() : lines;
}

std::vector<std::string> sent_lines(const KeeperState& keeper, Moment now) {
  if (!keeper.sentVersion) return {coloured("nothing", Colour::Bad)};
  std::string text = counted(keeper.sentNames, "name", "names");
  if (keeper.sentAt) text += ", " + duration_text(now - *keeper.sentAt) + " ago";
  std::vector<std::string> lines{text};
  if (keeper.sentVersion != keeper.listVersion)
    lines.push_back(coloured("an older version of the list", Colour::Warning));
  if (keeper.changesOfOthers > 0)
    lines.push_back(coloured(counted(keeper.changesOfOthers, "edit", "edits"), Colour::Warning) +
                    " by other clients since then, not in the list");
  lines.push_back(coloured("the extension cannot be asked what it holds: this is what the keeper sent", Colour::Faint));
  return lines;
}

// One line for each suspended name; at most kSuspensionsShown, and then a line that counts the others.
std::vector<std::string> suspended_lines(const KeeperState& keeper, Moment now) {
  std::vector<std::string> lines;
  for (const auto& [name, until] : keeper.suspended) {
    if (lines.size() == kSuspensionsShown) {
      const std::string more = std::to_string(keeper.suspendedNames - kSuspensionsShown);
      lines.push_back(coloured("and " + more + " more: orvanectl list", Colour::Faint));
      break;
    }
    lines.push_back(name.substr(name.starts_with('.') ? 1 : 0) + " " + suspension_text(until, now));
  }
  return lines;
}

// One line for each subscription, with its last error; and what is wrong with the fetcher.
std::vector<std::string> subscription_lines(const Status& status, Moment now) {
  const FetcherState& fetcher = status.fetcher;
  std::vector<std::string> lines;
  if (fetcher.error) lines.push_back(coloured("subscriptions not read", Colour::Bad) + ": " + *fetcher.error);
  if (!status.isFetcherRunning && !fetcher.subscriptions.empty())
    lines.push_back(coloured("not kept up to date", Colour::Bad) + ": " + kFetcherNotRunning);
  for (const SubscriptionState& each : fetcher.subscriptions) {
    std::string line = each.name + ": " + counted(each.counts.names, "name", "names");
    if (each.checked) line += ", confirmed " + duration_text(now - *each.checked) + " ago";
    lines.push_back(std::move(line));
    if (each.error) lines.push_back(coloured("not up to date", Colour::Bad) + ": " + *each.error);
  }
  return lines;
}

void print_status(const Status& status) {
  const Moment now = now_in_seconds();
  const bool inForce = status.isInForce();
  std::printf("%s %s\n", coloured("\u25cf", inForce ? Colour::Good : Colour::Bad).c_str(),
              inForce ? "The list is in force." : "The list is not in force.");
  print_part("Extension", extension_lines(status, now));
  print_part("Keeper", keeper_lines(status, now));
  print_part("Fetched", subscription_lines(status, now));
  if (!status.keeper) return;
  print_part("List", list_lines(*status.keeper));
  print_part("Read-only", read_only_lines(*status.keeper, now));
  print_part("Groups", group_lines(*status.keeper, now));
  print_part("Sent", sent_lines(*status.keeper, now));
  print_part("Suspended", suspended_lines(*status.keeper, now));
}

}  // namespace

int show_status(const CommonOptions& options) {
  Status status;
  status.extension = probe_extension(options.client);
  status.keeper = read_keeper_state(options.keeperStatePath);
  refuse_other_list(options, status.keeper);
  status.extensionService = unit_state(kExtensionUnit);
  status.keeperService = unit_state(kKeeperUnit);
  status.fetcherService = unit_state(kFetcherUnit);
  status.browsers = recognition_fault(options.client);
  status.isFetcherRunning = is_fetcher_running(fetcher_folder(options));
  status.statePath = options.keeperStatePath;
  try {
    status.fetcher = read_fetcher_state(fetcher_folder(options));
  } catch (const FileError& error) {
    status.fetcher.error = error.what();
  }
  if (status.keeper && status.extension.answers) add_later_changes(*status.keeper, status.extension.changes);
  if (options.json) {
    print_json(json_of(status));
  } else {
    print_status(status);
  }
  return status.isInForce() ? kDone : kNotInForce;
}

}  // namespace orvane
