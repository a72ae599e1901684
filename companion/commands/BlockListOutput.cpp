#include "companion/commands/BlockListOutput.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "companion/commandline/GroupState.h"
#include "companion/list/BlockListLine.h"
#include "companion/list/ListGuard.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

void put(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

// " in the group work, until 17:00 (1 h left)"
std::string still_blocked_text(const ListInForce::StillBlocked& each, Moment now) {
  const std::string group = each.group == kDefaultGroupName ? "" : " in the group " + each.group + ",";
  return group + (each.until ? " " + suspension_text(*each.until, now) : " for a while");
}

// One line for each group that is not simply in force.
std::vector<std::string> group_texts(const BlockList& list, const ListInForce& inForce, Moment now) {
  std::vector<std::string> texts;
  for (size_t i = 0; i < inForce.groups.size(); ++i) {
    const KeeperState::GroupState& state = inForce.groups[i];
    if (inForce.shownGroup && state.name != *inForce.shownGroup) continue;
    if (state.isInForce && !state.nextChange && !state.lockedUntil && state.pendingChanges == 0) continue;
    const size_t listed = list.groups().size();
    const Group& group = i < listed ? list.groups()[i] : inForce.goneGroups[i - listed];
    texts.push_back(state.name + ": " + state_text(group, state, now) + guard_text(state, now) +
                    (i < listed ? "" : kNotInFile));
  }
  return texts;
}

}  // namespace

std::string site_text(const ListedSite& site) {
  return shown_hostname(site.host) + (has_subdomains(site) ? " and its subdomains" : "");
}

nlohmann::json site_json(const ListedSite& site, Moment now) {
  const char* scope = site.scope == Scope::Exception ? "exception" : has_subdomains(site) ? "subdomains" : "exact";
  nlohmann::json json{{"host", site.host}, {"scope", scope}, {"suspended", site.isSuspended(now)}};
  if (std::string unicode = unicode_hostname(site.host); !unicode.empty()) json["unicode"] = std::move(unicode);
  if (site.isSuspended(now)) json["until"] = time_text(*site.until);
  return json;
}

ListInForce find_in_force(const BlockList& list, const std::optional<KeeperState>& keeper,
                          const std::optional<BlockList>& inForce, Moment now) {
  ListInForce result{states_of_groups(list, keeper, now), {}, {}, {}};
  if (!keeper || !inForce) return result;
  std::map<std::pair<std::string_view, std::string_view>, Moment> untilBySite;
  for (const auto& site : keeper->pending) untilBySite[{site.group, site.host}] = site.until;
  const auto states = states_of_groups(*inForce, keeper, now);
  for (size_t i = 0; i < states.size(); ++i) {
    if (list.findGroup(states[i].name)) continue;
    result.groups.push_back(states[i]);
    result.goneGroups.push_back(inForce->groups()[i]);
  }
  inForce->forEachSite([&](const ListedSite& site) {
    if (!states[site.group].isInForce) return;
    const std::string& group = inForce->groupOf(site).name;
    const auto inFile = list.findGroup(group);
    const ListedSite* wanted = inFile ? list.find(site.host, *inFile) : nullptr;
    if (site.scope == Scope::Exception || site.isSuspended(now) || !blocks_less(wanted, site)) return;
    const auto known = untilBySite.find({group, site.host});
    result.stillBlocked.push_back(
        {site, group, known == untilBySite.end() ? lock_end(keeper, group) : std::optional(known->second)});
  });
  return result;
}

void print_table(const BlockList& list, const ListInForce& inForce, Moment now) {
  constexpr size_t kWidestHost = 40;
  size_t width = 0, blocked = 0, exceptions = 0, suspended = 0;
  list.forEachSite([&](const ListedSite& site) { width = std::max(width, std::min(site.host.size(), kWidestHost)); });
  list.forEachSite([&](const ListedSite& site) {
    const bool isException = site.scope == Scope::Exception;
    ++(isException ? exceptions : blocked);
    std::string line = site.host;
    line.resize(std::max(width, line.size()), ' ');
    line += has_subdomains(site) ? "  with its subdomains" : "  this name only";
    if (isException) line += "  " + coloured("allowed", Colour::Good);
    if (site.isSuspended(now)) {
      ++suspended;
      line += "  " + coloured("suspended " + suspension_text(*site.until, now), Colour::Warning);
    }
    if (const std::string unicode = unicode_hostname(site.host); !unicode.empty())
      line += "  " + coloured(unicode, Colour::Faint);
    if (site.group != kDefaultGroup) line += "  " + coloured("in " + list.groupOf(site).name, Colour::Faint);
    put(line + '\n');
  });
  if (!inForce.stillBlocked.empty()) put("Still blocked, although the file no longer blocks it:\n");
  for (const auto& each : inForce.stillBlocked)
    put("  " + site_text(each.site) + coloured(still_blocked_text(each, now), Colour::Warning) + '\n');
  for (const std::string& state : group_texts(list, inForce, now)) put(state + '\n');
  if (blocked + exceptions + inForce.stillBlocked.size() == 0)
    return put("The list is empty. To add a site: orvanectl block HOST\n");
  std::string counts = counted(blocked, "site", "sites");
  if (exceptions > 0) counts += ", " + counted(exceptions, "exception", "exceptions");
  if (suspended > 0) counts += ", " + counted(suspended, "site suspended", "sites suspended");
  put(coloured(counts, Colour::Faint) + '\n');
}

void print_file(const BlockList& list, const ListInForce* inForce, Moment now) {
  BlockList plain;
  for (const Group& group : list.groups()) {
    if (!group.name.empty()) copy_settings(group, plain);
  }
  list.forEachSite([&](const ListedSite& site) {
    ListedSite copy = site;
    copy.group = *plain.findGroup(list.groupOf(site).name);
    if (!site.isSuspended(now)) copy.until.reset();
    plain.put(std::move(copy));
  });
  put(plain.text());
  if (inForce == nullptr) return;
  for (const auto& each : inForce->stillBlocked)
    put("# Still blocked: " + shown_hostname(each.site.host) + still_blocked_text(each, now) + '\n');
  for (const std::string& state : group_texts(list, *inForce, now)) put("# The group " + state + '\n');
}

void print_hosts(const BlockList& list) {
  list.forEachSite([](const ListedSite& site) {
    if (site.scope != Scope::Exception) put(site.host + '\n');
  });
}

void print_sites_json(const BlockList& list, const ListInForce* inForce, Moment now) {
  const char* between = "[";
  const auto print = [&](nlohmann::json json, const std::string& group, const ListInForce::StillBlocked* still) {
    json["group"] = group;
    if (still != nullptr) json["stillBlocked"] = true;
    if (still != nullptr) json["stillBlockedUntil"] = json_or_null(still->until);
    put(between + json.dump());
    between = ",\n ";
  };
  std::map<std::pair<std::string_view, std::string_view>, const ListInForce::StillBlocked*> stillBlocked;
  if (inForce != nullptr) {
    for (const auto& each : inForce->stillBlocked) stillBlocked[{each.group, each.site.host}] = &each;
  }
  list.forEachSite([&](const ListedSite& site) {
    nlohmann::json json = site_json(site, now);
    const std::string& group = list.groupOf(site).name;
    if (inForce == nullptr) return print(std::move(json), group, nullptr);
    json["inFile"] = true;
    json["groupInForce"] = inForce->groups[site.group].isInForce;
    json["groupNextChange"] = json_or_null(inForce->groups[site.group].nextChange);
    json["groupLockedUntil"] = json_or_null(inForce->groups[site.group].lockedUntil);
    const auto still = stillBlocked.find({group, site.host});
    print(std::move(json), group, still == stillBlocked.end() ? nullptr : still->second);
    if (still != stillBlocked.end()) stillBlocked.erase(still);
  });
  for (const auto& [key, each] : stillBlocked) {
    nlohmann::json json = site_json(each->site, now);
    json["inFile"] = false;
    print(std::move(json), each->group, each);
  }
  put(*between == '[' ? "[]\n" : "]\n");
}

void report_bad_lines(const std::vector<BlockList::BadLine>& lines, size_t count, const std::string& path) {
  for (const auto& bad : lines)
    print_error("bad line ignored: " + in_quotes(path) + ":" + std::to_string(bad.line) + ": " + in_quotes(bad.text) +
                ": " + bad.fault);
  if (count > lines.size()) print_error("and " + std::to_string(count - lines.size()) + " more bad lines");
}

}  // namespace orvane
