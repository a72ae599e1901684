#include "companion/commands/Try.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "companion/browsers/BrowserRecognition.h"
#include "companion/client/ExtensionProbe.h"
#include "companion/client/UnitState.h"
#include "companion/commandline/GroupState.h"
#include "companion/commands/BrowserWarning.h"
#include "companion/commands/KeeperCommands.h"
#include "companion/keeper/KeeperState.h"
#include "companion/keeper/ListsBeside.h"
#include "companion/list/BlockListLine.h"
#include "companion/list/ListFile.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
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

// " in the group work, which is disabled"
std::string in_group(const BlockList& list, GroupIndex group, const std::vector<KeeperState::GroupState>& groups,
                     Moment now) {
  return " in the group " + list.groups()[group].name + ", which is " +
         state_text(list.groups()[group], groups[group], now);
}

// Says which line decides about the host.
std::string decision_text(const BlockList& list, const std::string& host, const Decision& decision, Verdict verdict,
                          const std::vector<KeeperState::GroupState>& groups, Moment now) {
  if (decision.isBlocked())
    return (verdict == Verdict::Blocked ? "blocked on ports 80 and 443 by " : "covered by ") +
           line_text(list, *decision.blocking);
  if (decision.exception != nullptr) {
    const ListedSite* covering = decision.blocking != nullptr ? decision.blocking : decision.suspended;
    return "allowed by the exception " + in_quotes(line_of(*decision.exception)) +
           (covering == nullptr ? "; no line blocks it now"
                                : ", although " + line_text(list, *covering) + " covers it");
  }
  if (decision.suspended != nullptr)
    return "covered by " + line_text(list, *decision.suspended) + ", but suspended " +
           suspension_text(*decision.suspended->until, now);
  if (decision.inactive != nullptr)
    return "covered by the line " + in_quotes(line_of(*decision.inactive)) +
           in_group(list, decision.inactive->group, groups, now);
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
  for (const ListedSite* site : {decision.exception, decision.blocking, decision.suspended}) {
    if (site != nullptr) return site;
  }
  return decision.inactive;
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
    return {State::Unknown, std::string("no keeper runs, so what the extension holds is not known: ") + kStartKeeper +
                                (extension.answers ? "" : "; " + extension.error)};
  if (keeper->sentVersion == version && !keeper->extensionError && keeper->changesOfOthers > 0)
    return {
        State::Unknown,
        "the keeper has sent the list to the extension, but other clients have edited what the extension holds, and "
        "the extension cannot list its names: a restart of the keeper sends the list again"};
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

// The answer about one host.
struct Answer {
  std::string host;
  Verdict verdict = Verdict::Unknown;
  std::string reason;           // which line decides
  nlohmann::json line;          // the members that describe this line
  std::string catalogueSite{};  // the id of the catalogue's site that has the host; may be empty
};

// Gathers what decides about every host, and then answers for each host.
class Trial {
 public:
  explicit Trial(const CommonOptions& options) {
    StoredList stored = read_list(options.listPath);
    const ExtensionProbe extension = probe_extension(options.client);
    auto keeper = read_keeper_state(options.keeperStatePath);
    if (keeper && extension.answers) add_later_changes(*keeper, extension.changes);
    if (keeper && keeps_list(*keeper, options)) keeper_ = keeper;
    auto inForce = list_in_force(options, keeper_);
    list_ = inForce ? *std::move(inForce) : std::move(stored.list);
    groups_ = states_of_groups(list_, keeper_, now_);
    states_ = in_force(groups_);
    beside_.emplace(keeper_);
    delivery_ = delivery_of(stored.version, keeper, extension);
    if (delivery_.state == Delivery::State::Behind && !keeper_) delivery_.text = no_keeper_text(options);
    const auto unrecognised = recognition_fault(options.client);
    if (unrecognised && unrecognised->isInForce)
      delivery_ = {Delivery::State::NothingBlocked,
                   "nothing is blocked: no browser is recognised: " + unrecognised->text};
  }

  Answer answer(const std::string& host) {
    const Decision decision = decide(list_, host, now_, states_);
    const std::vector<ListPart> parts = beside_->partsAbout(host);
    const bool isBlocked = parts.empty() ? decision.isBlocked() : is_blocked(list_, parts, host, now_, states_);
    const Verdict verdict = verdict_of(isBlocked, delivery_.state);
    BesideDecision beside;
    if (!parts.empty()) beside = decide_beside(list_, parts, host, decision, isBlocked, verdict);
    if (beside.text.empty() && deciding_site(decision) == nullptr) beside = inactiveBeside(parts, host);
    if (beside.text.empty()) beside.text = decision_text(list_, host, decision, verdict, groups_, now_);
    if (isBlocked && !beside.line && decision.blocking != nullptr) beside.text += untilText(*decision.blocking);
    return {host, verdict, std::move(beside.text), lineMembers(decision, beside.line)};
  }

  // The reasons that are the same for all hosts with this verdict.
  const std::vector<std::string>& reasonsFor(Verdict verdict) {
    std::vector<std::string>& reasons = reasons_[verdict];
    if (!reasons.empty()) return reasons;
    reasons.push_back(delivery_.text);
    if (verdict != Verdict::Blocked) return reasons;
    const std::string warning = warning_about_browsers();
    if (!warning.empty()) reasons.push_back("but " + warning);
    return reasons;
  }

 private:
  // "; the group is in force until 17:00; but an earlier change has an effect in 15 min". Empty if no schedule ends the
  // time in force, and no change of the line or of its group is held back.
  std::string untilText(const ListedSite& site) const {
    const auto& state = groups_[site.group];
    const auto earlier = heldBack(site);
    return (state.nextChange ? "; the group is " + state_text(list_.groups()[site.group], state, now_) : "") +
           (earlier ? earlier_change_text(*earlier, now_) : "");
  }
  MaybeHeldBack heldBack(const ListedSite& site) const {
    const auto ofSite = earlier_change_held_back(keeper_, list_.groupOf(site).name, site.host);
    return ofSite ? ofSite : earlier_change_held_back(groups_[site.group]);
  }
  BesideDecision inactiveBeside(const std::vector<ListPart>& parts, const std::string& host) const {
    const auto line = find_inactive_line(parts, host);
    const auto group = line ? list_.findGroup(line->group) : std::nullopt;
    if (!group) return {};
    return {"covered by a line" + in_group(list_, *group, groups_, now_) + ": " + line_text(*line), line};
  }
  nlohmann::json lineMembers(const Decision& decision, const std::optional<LineBeside>& beside) const {
    nlohmann::json json;
    for (const char* member : {"site", "group", "groupUntil", "line", "list", "suspendedUntil", "heldBack"})
      json[member] = nullptr;
    if (beside) {
      json["site"] = beside->site.host;
      json["line"] = line_of(beside->site);
      json["list"] = beside->path;
      json["group"] = beside->group;
    } else if (const ListedSite* site = deciding_site(decision)) {
      json["site"] = site->host;
      json["group"] = list_.groupOf(*site).name;
      json["groupUntil"] = json_or_null(groups_[site->group].nextChange);
      json["line"] = line_of(*site);
      if (const auto earlier = heldBack(*site)) json["heldBack"] = orvane::to_json(*earlier);
      if (site->isSuspended(now_)) json["suspendedUntil"] = time_text(*site->until);
    }
    return json;
  }

  const Moment now_ = now_in_seconds();
  std::optional<KeeperState> keeper_;  // of this list
  BlockList list_;
  std::vector<KeeperState::GroupState> groups_;
  GroupStates states_;
  std::optional<ListsBeside> beside_;
  Delivery delivery_{};
  std::map<Verdict, std::vector<std::string>> reasons_;
};

nlohmann::json to_json(const Answer& answer, Trial& trial) {
  nlohmann::json json = answer.line;
  std::vector<std::string> reasons{answer.reason};
  for (const std::string& reason : trial.reasonsFor(answer.verdict)) reasons.push_back(reason);
  json["host"] = answer.host;
  json["verdict"] = name_of(answer.verdict).text;
  json["reasons"] = std::move(reasons);
  if (!answer.catalogueSite.empty()) json["catalogueSite"] = answer.catalogueSite;
  return json;
}

void print_answer(const Answer& answer) {
  const VerdictName shown = name_of(answer.verdict);
  std::printf("%s: %s\n  %s\n", shown_hostname(answer.host).c_str(), coloured(shown.text, shown.colour).c_str(),
              answer.reason.c_str());
}

int try_one(const CommonOptions& options, const std::string& given) {
  std::string host, fault;
  note_ignored_port(given);
  if (!normalize_hostname(host_in(given), host, fault))
    throw InputError("not a host name: " + in_quotes(given) + ": " + fault);
  Trial trial(options);
  Answer answer = trial.answer(host);
  if (const auto id = catalogued_id(options, given); id && answer.line["line"].is_null())
    answer.reason += "; did you mean --site " + *id + "?";
  if (options.json) {
    print_json(to_json(answer, trial));
  } else {
    print_answer(answer);
    for (const std::string& reason : trial.reasonsFor(answer.verdict)) std::printf("  %s\n", reason.c_str());
  }
  return name_of(answer.verdict).exitCode;
}

// Prints what concerns all hosts only once, after the hosts.
int try_sites(const CommonOptions& options, const SiteOptions& catalogued) {
  const std::vector<CatalogueSite> sites = chosen_sites(options, catalogued);
  Trial trial(options);
  nlohmann::json all = nlohmann::json::array();
  std::map<Verdict, size_t> total;
  for (const CatalogueSite& site : sites) {
    std::map<Verdict, size_t> hosts;
    for (const ListedSite& host : site.hosts) {
      Answer answer = trial.answer(host.host);
      answer.catalogueSite = site.id;
      ++hosts[answer.verdict];
      options.json ? all.push_back(to_json(answer, trial)) : print_answer(answer);
    }
    for (const auto& [verdict, count] : hosts) {
      total[verdict] += count;
      if (!options.json)
        std::printf("%s, %s: %s\n", site.name.c_str(), counted(count, "host", "hosts").c_str(), name_of(verdict).text);
    }
  }
  // A single host that is not blocked decides the exit code.
  Verdict worst = Verdict::Blocked;
  for (const Verdict verdict : {Verdict::Unknown, Verdict::NotBlocked}) {
    if (total.contains(verdict)) worst = verdict;
  }
  if (options.json) {
    print_json(all);
  } else {
    const Verdict shown = total.contains(Verdict::Blocked) ? Verdict::Blocked : worst;
    for (const std::string& reason : trial.reasonsFor(shown)) std::puts(reason.c_str());
  }
  return name_of(worst).exitCode;
}

}  // namespace

int try_hosts(const CommonOptions& options, const std::string& host, const SiteOptions& catalogued) {
  if (host.empty() != catalogued.isGiven())
    throw InputError("bad command line: try: give a host, or --site SITE, or --category CATEGORY");
  return catalogued.isGiven() ? try_sites(options, catalogued) : try_one(options, host);
}

}  // namespace orvane
