#include "companion/commands/Try.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "companion/browsers/BrowserRecognition.h"
#include "companion/client/ExtensionProbe.h"
#include "companion/commands/GroupState.h"
#include "companion/commands/KeeperCommands.h"
#include "companion/doctor/DoctorBrowsers.h"
#include "companion/doctor/DoctorFacts.h"
#include "companion/keeper/KeeperState.h"
#include "companion/keeper/ListsBeside.h"
#include "companion/list/BlockListLine.h"
#include "companion/list/ListFile.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

enum class Verdict { Blocked, NotBlocked, Unknown };

struct VerdictName {
  const char* text;
  int exitCode;
  Colour colour;
};
VerdictName name_of(Verdict verdict) {
  switch (verdict) {
    case Verdict::Blocked:
      return {"blocked", kDone, Colour::Bad};
    case Verdict::NotBlocked:
      return {"not blocked", kNotInForce, Colour::Good};
    case Verdict::Unknown:
      break;
  }
  return {"unknown", kUnknown, Colour::Warning};
}

// For a host that no line covers: a text about a similar line that the user may expect to cover the host. Empty if
// there is no such line.
std::string nearest_miss(const BlockList& list, const std::string& host) {
  for (size_t dot = host.find('.'); dot != std::string::npos; dot = host.find('.', dot + 1)) {
    const ListedSite* site = list.find(std::string_view(host).substr(dot + 1));
    if (site == nullptr || site->scope == Scope::Exception) continue;
    return in_quotes(line_of(*site)) + " covers only this exact name" +
           (has_subdomains({site->host, Scope::Subdomains, {}}) ? ": block it without --exact to cover this host"
                                                                : ": block this host by its name");
  }
  if (list.find("www." + host) != nullptr) return "www." + host + " is on the list, but does not cover " + host;
  return "";
}

// "the line "example.com" of the group work"
std::string line_text(const BlockList& list, const ListedSite& site) {
  const std::string line = "the line " + in_quotes(line_of(site));
  return site.group == kDefaultGroup ? line : line + " of the group " + list.groupOf(site).name;
}

// Says which line decides about the host.
std::string decision_text(const BlockList& list, const std::string& host, const Decision& decision, Verdict verdict,
                          const std::vector<KeeperState::GroupState>& groups, Moment now) {
  if (decision.isBlocked())
    return (verdict == Verdict::Blocked ? "blocked on ports 80 and 443 by " : "covered by ") +
           line_text(list, *decision.blocking);
  if (decision.blocking != nullptr)
    return "allowed by the exception " + in_quotes(line_of(*decision.exception)) + ", although " +
           line_text(list, *decision.blocking) + " covers it";
  if (decision.suspended != nullptr)
    return "covered by " + line_text(list, *decision.suspended) + ", but suspended " +
           suspension_text(*decision.suspended->until, now);
  if (decision.inactive != nullptr)
    return "covered by " + line_text(list, *decision.inactive) + ", which is " +
           state_text(list.groupOf(*decision.inactive), groups[decision.inactive->group], now);
  const std::string miss = nearest_miss(list, host);
  return "it is not on the list" + (miss.empty() ? "" : "; " + miss);
}

// What the read-only lists decide about the host; no text if they decide nothing.
struct BesideDecision {
  std::string text;
  std::optional<LineBeside> line;  // the line that decides, if it is on a read-only list
};
BesideDecision decide_beside(const BlockList& list, const std::vector<ListPart>& parts, const std::string& host,
                             const Decision& own, bool isBlocked, Verdict verdict) {
  const auto find = [&](Rank rank, bool isException) { return find_line(parts, rank, isException, host); };
  const auto fixed = find(Rank::Fixed, false), open = find(Rank::Open, false);
  const char* const kBlocks = verdict == Verdict::Blocked ? "blocked on ports 80 and 443 by " : "covered by ";
  if (isBlocked && fixed) return {kBlocks + line_text(*fixed), fixed};
  const std::string inVain = own.exception == nullptr ? ""
                                                      : "; the exception " + in_quotes(line_of(*own.exception)) +
                                                            " has no effect, because it concerns a name of an "
                                                            "administrator's list";
  if (isBlocked && own.blocking != nullptr) return {kBlocks + line_text(list, *own.blocking) + inVain, {}};
  if (isBlocked && open) return {kBlocks + line_text(*open) + inVain, open};
  if (!fixed && !open && own.blocking == nullptr) return {};
  const std::string covering = fixed                     ? line_text(*fixed)
                               : own.blocking != nullptr ? line_text(list, *own.blocking)
                                                         : line_text(*open);
  const std::string although = ", although " + covering + " covers it";
  if (const auto exception = find(Rank::Fixed, true))
    return {"allowed by " + line_text(*exception) + although, exception};
  if (own.exception != nullptr)
    return {"allowed by the exception " + in_quotes(line_of(*own.exception)) + although, {}};
  if (const auto exception = find(Rank::Open, true))
    return {"allowed by " + line_text(*exception) + although, exception};
  if (own.suspended != nullptr)
    return {"covered by " + covering + ", but suspended with " + line_text(list, *own.suspended), {}};
  return {};
}

// The line that decides about the host; null if there is none.
const ListedSite* deciding_site(const Decision& decision) {
  if (decision.blocking == nullptr) return decision.suspended != nullptr ? decision.suspended : decision.inactive;
  return decision.exception != nullptr ? decision.exception : decision.blocking;
}

// Whether the extension has the list.
struct Delivery {
  enum class State { InForce, Behind, NothingBlocked, Unknown } state;
  std::string text;
};

Delivery delivery_of(const ListVersion& version, const std::optional<KeeperState>& keeper,
                     const ExtensionProbe& extension) {
  using State = Delivery::State;
  if (extension.isUnresponsive || extension.isAbsent || (keeper && !keeper->connected && !extension.answers))
    return {State::NothingBlocked, "nothing is blocked: " + extension.error};
  if (!keeper)
    return {State::Unknown,
            "no keeper runs, so what the extension holds is not known: sudo systemctl start orvane-keeper.service" +
                (extension.answers ? "" : "; " + extension.error)};
  if (keeper->sentVersion == version && !keeper->extensionError)
    return {State::InForce, "the keeper has sent the list to the extension"};
  return {State::Behind, "the keeper has not sent this list yet: " +
                             keeper->listError.value_or(keeper->extensionError.value_or("try again in a moment"))};
}

Verdict verdict_of(bool isBlocked, Delivery::State delivery) {
  using State = Delivery::State;
  if (delivery == State::NothingBlocked) return Verdict::NotBlocked;
  if (delivery != State::InForce) return Verdict::Unknown;
  return isBlocked ? Verdict::Blocked : Verdict::NotBlocked;
}

}  // namespace

int try_host(const CommonOptions& options, const std::string& given) {
  std::string name, fault;
  note_ignored_port(given);
  if (!normalize_hostname(host_in(given), name, fault))
    throw InputError("not a host name: " + in_quotes(given) + ": " + fault);

  const StoredList stored = read_list(options.listPath);
  const Moment now = now_in_seconds();
  const ExtensionProbe extension = probe_extension(options.client);
  std::optional<KeeperState> keeper = read_keeper_state(options.keeperStatePath);
  if (keeper && extension.answers) add_later_changes(*keeper, extension.changes);
  const auto ofList = keeper && keeps_list(*keeper, options) ? keeper : std::nullopt;
  auto inForce = list_in_force(options, ofList);
  const BlockList list = inForce ? *std::move(inForce) : stored.list;
  const auto groups = states_of_groups(list, ofList, now);
  const GroupStates states = in_force(groups);
  const Decision decision = decide(list, name, now, states);
  const std::vector<ListPart> parts = ListsBeside(ofList).partsAbout(name);
  const bool isBlocked = parts.empty() ? decision.isBlocked() : is_blocked(list, parts, name, now, states);
  Delivery delivery = delivery_of(stored.version, keeper, extension);
  const auto unrecognised = recognition_fault(options.client);
  if (unrecognised && unrecognised->isInForce)
    delivery = {Delivery::State::NothingBlocked, "nothing is blocked: no browser is recognised: " + unrecognised->text};
  const Verdict verdict = verdict_of(isBlocked, delivery.state);
  BesideDecision beside;
  if (!parts.empty()) beside = decide_beside(list, parts, name, decision, isBlocked, verdict);
  if (beside.text.empty()) beside.text = decision_text(list, name, decision, verdict, groups, now);

  std::vector<std::string> reasons{beside.text, delivery.text};
  if (keeper && keeper->changesOfOthers > 0 && delivery.state != Delivery::State::NothingBlocked)
    reasons.push_back(
        "but other clients have edited what the extension holds, and the extension cannot list its names");

  if (verdict == Verdict::Blocked) {
    const std::string warning = browser_warning(gather_browser_facts());
    if (!warning.empty()) reasons.push_back("but " + warning);
  }

  const VerdictName shown = name_of(verdict);
  if (options.json) {
    nlohmann::json json{{"host", name}, {"verdict", shown.text}, {"reasons", reasons}};
    for (const char* member : {"site", "group", "line", "list", "suspendedUntil"}) json[member] = nullptr;
    if (beside.line) {
      json["site"] = beside.line->site.host;
      json["line"] = line_of(beside.line->site);
      json["list"] = beside.line->path;
    } else if (const ListedSite* site = deciding_site(decision)) {
      json["site"] = site->host;
      json["group"] = list.groupOf(*site).name;
      json["line"] = line_of(*site);
      if (site->isSuspended(now)) json["suspendedUntil"] = time_text(*site->until);
    }
    print_json(json);
  } else {
    std::printf("%s: %s\n", shown_hostname(name).c_str(), coloured(shown.text, shown.colour).c_str());
    for (const std::string& reason : reasons) std::printf("  %s\n", reason.c_str());
  }
  return shown.exitCode;
}

}  // namespace orvane
