#include "companion/list/ListGuard.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "companion/list/BlockListLine.h"
#include "companion/text/Input.h"
#include "platform/linux/base/Subdomains.h"

namespace orvane {
namespace {

using Json = nlohmann::json;
using std::chrono::seconds;

constexpr int kWeakestSite = 2;

// How much a line blocks, at least kWeakestSite if it blocks anything. No line blocks more than an exception.
int strength(const ListedSite* site) {
  if (site == nullptr) return 1;
  switch (site->scope) {
    case Scope::Exception:
      return 0;
    case Scope::ExactName:
      return 2;
    case Scope::Subdomains:
      break;
  }
  return 3;
}

bool blocks_less(const ListedSite* wanted, const ListedSite& held) {
  if (strength(wanted) < strength(&held)) return true;
  return wanted->until && (!held.until || *wanted->until > *held.until);
}

bool blocks_less(const Group& wanted, const Group& held) {
  if (wanted.delay < held.delay) return true;
  if (!held.isEnabled) return false;
  return !wanted.isEnabled || (!wanted.schedule.isEmpty() && wanted.schedule != held.schedule);
}

GroupIndex group_named(BlockList& list, std::string_view name) {
  const auto known = list.findGroup(name);
  return known ? *known : list.addGroup(name);
}

std::string key_of(const BlockList& list, const ListedSite& exception) {
  const Group& group = list.groupOf(exception);
  std::string key = exception.host + " " + group.name + (group.isEnabled ? "" : " disabled");
  for (const std::string& span : group.schedule.texts()) key += "; " + span;
  return key;
}

}  // namespace

std::string ListGuard::save(const Now& now) const {
  Json groups = Json::object(), exceptions = Json::object();
  const auto left = [&](Seconds moment) { return (moment - now.running).count(); };
  for (const auto& [name, guarded] : guarded_) {
    Json& group = groups[name] = Json::object();
    group["hasCopy"] = guarded.hasCopy;
    if (guarded.lockEnd) group["lockLeft"] = left(*guarded.lockEnd);
    if (guarded.lockEnd) group["lockBegan"] = left(guarded.lockBegan);
    if (guarded.lockEnd) group["clock"] = guarded.clock.count();
    if (guarded.request) group["request"] = time_text(*guarded.request);
    Json& leaving = group["leaving"] = Json::object();
    for (const auto& [host, moment] : guarded.leaving) leaving[host] = left(moment);
  }
  for (const auto& [key, since] : exceptions_) exceptions[key] = left(since);
  const Json header{{"running", now.running.count()}, {"groups", groups}, {"exceptions", exceptions}};
  return "# " + header.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n" + held_.text();
}

void ListGuard::load(std::string_view text, const Now& now) {
  const size_t end = std::min(text.find('\n'), text.size());
  ListGuard loaded;
  try {
    const Json header = Json::parse(text.substr(std::min<size_t>(2, end), end - std::min<size_t>(2, end)));
    // If the machine was restarted meanwhile, this is the time since its start: it is not known how long the machine
    // still ran before. If its clock is beyond the old value again, the difference is less than that time.
    const Seconds saved(header.at("running").get<int64_t>());
    const bool isRestarted = now.running < saved;
    const Seconds start = isRestarted ? Seconds(0) : saved;
    const auto moment = [&](const Json& left) { return start + Seconds(left.get<int64_t>()); };
    for (const auto& [name, group] : header.at("groups").items()) {
      Guarded& guarded = loaded.guarded_[name];
      guarded.hasCopy = group.at("hasCopy").get<bool>();
      if (group.contains("lockLeft")) {
        guarded.lockEnd = moment(group.at("lockLeft"));
        guarded.lockBegan = moment(group.at("lockBegan"));
        guarded.clock =
            isRestarted ? now.wall.time_since_epoch() - now.running : Seconds(group.at("clock").get<int64_t>());
      }
      if (group.contains("request")) guarded.request = read_moment(group.at("request").get<std::string>());
      for (const auto& [host, left] : group.at("leaving").items()) guarded.leaving[host] = moment(left);
    }
    for (const auto& [key, since] : header.at("exceptions").items()) loaded.exceptions_[key] = moment(since);
  } catch (const Json::exception& error) {
    throw InputError(std::string("not a saved guard: ") + error.what());
  }
  loaded.held_ = BlockList::parse(text.substr(end));
  *this = std::move(loaded);
}

bool ListGuard::update(const BlockList& file, const Now& now) {
  isChanged_ = false;
  due_.reset();
  const bool wasActive = isActive();
  takeRequests(file, now);
  for (auto& [name, guarded] : guarded_) {
    if (guarded.lockEnd && *guarded.lockEnd <= now.running) {
      guarded.lockEnd.reset();
      isChanged_ = true;
    }
    if (guarded.lockEnd) noteDue(*guarded.lockEnd);
    if (isGuarded(name, guarded, file)) updateGroup(name, guarded, file, now);
    if (guarded.hasCopy && !isGuarded(name, guarded, file)) release(name, guarded);
  }
  // The request of an ended lock is remembered as long as the file has it. Otherwise it would lock the group again
  // after the clock was set back.
  std::erase_if(guarded_, [&](const auto& entry) {
    const auto group = file.findGroup(entry.first);
    return !entry.second.hasCopy && !(group && file.groups()[*group].lockUntil);
  });
  if (isActive()) {
    updateExceptions(file, now, wasActive);
  } else {
    exceptions_.clear();
    heldBack_.clear();
  }
  // Lines that were removed would stay in memory.
  if (isChanged_) held_ = BlockList::parse(held_.text());
  return isChanged_;
}

// Forgets the guard's copy of a group.
void ListGuard::release(const std::string& name, Guarded& guarded) {
  isChanged_ = true;
  guarded.hasCopy = false;
  guarded.leaving.clear();
  const GroupIndex held = group_named(held_, name);
  for (const ListedSite& site : held_.sites()) {
    if (site.group == held) held_.remove(site.host, held);
  }
  copy_settings({name, true, {}, {}, {}}, held_);
  if (held != kDefaultGroup) held_.removeGroup(held);
}

bool ListGuard::isGuarded(const std::string& name, const Guarded& guarded, const BlockList& file) const {
  const auto held = held_.findGroup(name), wanted = file.findGroup(name);
  return guarded.lockEnd || (guarded.hasCopy && held && held_.groups()[*held].delay.count() > 0) ||
         (wanted && file.groups()[*wanted].delay.count() > 0);
}

void ListGuard::takeRequests(const BlockList& file, const Now& now) {
  for (const Group& group : file.groups()) {
    if (group.name.empty()) continue;
    if (group.delay.count() > 0) guarded_[group.name];
    if (!group.lockUntil) continue;
    Guarded& guarded = guarded_[group.name];
    if (guarded.request == group.lockUntil) continue;
    guarded.request = group.lockUntil;
    isChanged_ = true;
    const Seconds end = now.running + std::min<Seconds>(*group.lockUntil - now.wall, kLongestLock);
    if (end <= guarded.lockEnd.value_or(now.running)) continue;
    if (!guarded.lockEnd) {
      guarded.lockBegan = now.running;
      guarded.clock = now.wall.time_since_epoch() - now.running;
    }
    guarded.lockEnd = end;
  }
}

// Brings the guard's copy of a group up to date.
void ListGuard::updateGroup(const std::string& name, Guarded& guarded, const BlockList& file, const Now& now) {
  const std::optional<GroupIndex> wanted = file.findGroup(name);
  const GroupIndex held = group_named(held_, name);
  if (!guarded.hasCopy && wanted) copy_settings(file.groups()[*wanted], held_);
  isChanged_ = isChanged_ || !guarded.hasCopy;
  guarded.hasCopy = true;
  updateSettings(held, guarded, wanted ? &file.groups()[*wanted] : nullptr, now);
  // A lock ends the suspensions of its group.
  const bool isLockNew = guarded.lockEnd && guarded.lockBegan == now.running;
  const Seconds delay = held_.groups()[held].delay;
  for (ListedSite& site : held_.sites()) {
    if (site.group != held) continue;
    if (isLockNew && site.until) {
      site.until.reset();
      held_.put(site);
    }
    const ListedSite* other = wanted ? file.find(site.host, *wanted) : nullptr;
    if (!blocks_less(other, site)) {
      stays(guarded, site.host);
    } else if (mayLeave(guarded, site.host, delay, now) && strength(other) < kWeakestSite) {
      isChanged_ = held_.remove(site.host, held) || isChanged_;
    }
  }
  if (!wanted) return;
  file.forEachSite([&](const ListedSite& site) {
    if (site.group != *wanted || site.scope == Scope::Exception || guarded.leaving.contains(site.host)) return;
    ListedSite copy = site;
    copy.group = held;
    if (isLockNew) copy.until.reset();
    isChanged_ = held_.put(std::move(copy)) || isChanged_;
  });
}

// `wanted`: the settings in the file; null if the file has no such group.
void ListGuard::updateSettings(GroupIndex held, Guarded& guarded, const Group* wanted, const Now& now) {
  const Group before = held_.groups()[held];
  Group after = before;
  if (wanted == nullptr) {
    after.isEnabled = false;
    after.delay = Seconds(0);
  } else {
    after = *wanted;
  }
  after.lockUntil.reset();
  after.name = before.name;
  if (!blocks_less(after, before)) {
    stays(guarded, "");
  } else if (!mayLeave(guarded, "", before.delay, now)) {
    after = before;
    if (wanted != nullptr) after.delay = std::max(before.delay, wanted->delay);
  }
  if (after == before) return;
  copy_settings(after, held_);
  isChanged_ = true;
}

// Whether a change that makes the group block less may have an effect now. `key`: the host of the change.
bool ListGuard::mayLeave(Guarded& guarded, const std::string& key, Seconds delay, const Now& now) {
  const auto [entry, isNew] = guarded.leaving.try_emplace(key, now.running + delay);
  isChanged_ = isChanged_ || isNew;
  if (guarded.lockEnd) return false;
  if (entry->second > now.running) {
    noteDue(entry->second);
    return false;
  }
  guarded.leaving.erase(entry);
  isChanged_ = true;
  return true;
}

void ListGuard::stays(Guarded& guarded, const std::string& key) {
  isChanged_ = guarded.leaving.erase(key) > 0 || isChanged_;
}

// Finds the exceptions that have no effect yet.
void ListGuard::updateExceptions(const BlockList& file, const Now& now, bool wasActive) {
  const BlockList list = withHeldGroups(file);
  std::map<std::string, Seconds> seen;
  heldBack_.clear();
  list.forEachSite([&](const ListedSite& site) {
    if (site.scope != Scope::Exception) return;
    const std::string key = key_of(list, site);
    const auto known = exceptions_.find(key);
    // An exception that is older than the guard has an effect.
    const Seconds since = known != exceptions_.end() ? known->second
                          : wasActive                ? now.running
                                                     : now.running - kLongestDelay;
    seen.emplace(key, since);
    if (isHeldBack(site, since, now)) heldBack_.emplace(list.groupOf(site).name, site.host);
  });
  isChanged_ = isChanged_ || seen != exceptions_;
  exceptions_ = std::move(seen);
}

bool ListGuard::isHeldBack(const ListedSite& exception, Seconds since, const Now& now) {
  bool isHeldBack = false;
  for (const auto& [name, guarded] : guarded_) {
    const auto held = held_.findGroup(name);
    if (!guarded.hasCopy || !held) continue;
    const bool isLocked = guarded.lockEnd && since >= guarded.lockBegan;
    const Seconds end = since + held_.groups()[*held].delay;
    if ((!isLocked && end <= now.running) || !concerns(exception, *held)) continue;
    if (!isLocked) noteDue(end);
    isHeldBack = true;
  }
  return isHeldBack;
}

// Whether an exception would let pass what a site of the guarded group blocks.
bool ListGuard::concerns(const ListedSite& exception, GroupIndex held) const {
  for (std::string_view covering : covering_hosts(exception.host)) {
    const ListedSite* site = held_.find(covering, held);
    if (site != nullptr && (site->scope == Scope::Subdomains || covering == exception.host)) return true;
  }
  bool isAbove = false;
  const std::string below = "." + exception.host;
  held_.forEachSite(
      [&](const ListedSite& site) { isAbove = isAbove || (site.group == held && site.host.ends_with(below)); });
  return isAbove;
}

bool ListGuard::isActive() const {
  return std::any_of(guarded_.begin(), guarded_.end(), [](const auto& entry) { return entry.second.hasCopy; });
}

bool ListGuard::isLocked() const {
  return std::any_of(guarded_.begin(), guarded_.end(), [](const auto& entry) { return entry.second.lockEnd; });
}

// The list of the file, with the guard's copy in place of each guarded group, except for the group's exceptions.
BlockList ListGuard::withHeldGroups(const BlockList& file) const {
  BlockList list;
  const auto copyGroups = [&](const BlockList& from, const auto& isWanted) {
    for (const Group& group : from.groups()) {
      if (!group.name.empty() && isWanted(group.name)) copy_settings(group, list);
    }
  };
  const auto isHeld = [&](std::string_view name) {
    const auto found = guarded_.find(name);
    return found != guarded_.end() && found->second.hasCopy;
  };
  copyGroups(file, [&](std::string_view name) { return !isHeld(name); });
  copyGroups(held_, isHeld);
  const auto copySite = [&](const BlockList& from, const ListedSite& site) {
    ListedSite copy = site;
    copy.group = group_named(list, from.groupOf(site).name);
    if (list.find(copy.host, copy.group) == nullptr) list.put(std::move(copy));
  };
  held_.forEachSite([&](const ListedSite& site) { copySite(held_, site); });
  file.forEachSite([&](const ListedSite& site) {
    if (site.scope == Scope::Exception || !isHeld(file.groupOf(site).name)) copySite(file, site);
  });
  return list;
}

BlockList ListGuard::listInForce(const BlockList& file) const {
  BlockList list = withHeldGroups(file);
  for (const auto& [group, host] : heldBack_) {
    if (const auto index = list.findGroup(group)) list.remove(host, *index);
  }
  return list;
}

GroupStates ListGuard::statesOf(const BlockList& list, const Now& now) const {
  GroupStates states = group_states(list, now.wall);
  for (size_t i = 0; i < list.groups().size(); ++i) {
    const Group& group = list.groups()[i];
    const auto found = guarded_.find(group.name);
    if (found == guarded_.end() || !found->second.lockEnd) continue;
    const Moment unset(now.running + found->second.clock);
    states.isInForce[i] = states.isInForce[i] || group.isInForce(unset);
    if (const auto next = group.nextChange(unset)) {
      const Moment moment = now.wall + (*next - unset);
      states.nextChange = std::min(states.nextChange.value_or(moment), moment);
    }
  }
  return states;
}

std::optional<seconds> ListGuard::lockEnd(std::string_view group) const {
  const auto found = guarded_.find(group);
  return found == guarded_.end() ? std::nullopt : found->second.lockEnd;
}

size_t ListGuard::pendingChanges(std::string_view group) const {
  const auto found = guarded_.find(group);
  return found == guarded_.end() ? 0 : found->second.leaving.size();
}

}  // namespace orvane
