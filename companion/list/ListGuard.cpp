#include "companion/list/ListGuard.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "companion/list/BlockListLine.h"
#include "companion/text/Input.h"

namespace orvane {
namespace {

using Json = nlohmann::json;
using std::chrono::seconds;

constexpr int kWeakestSite = 2;

// How much a line blocks; at least kWeakestSite if it blocks anything. An exception counts least, even less than a
// missing line (null), because it lets the host pass.
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

GroupIndex group_named(BlockList& list, std::string_view name) {
  const auto known = list.findGroup(name);
  return known ? *known : list.addGroup(name);
}

// The site takes at most this many bytes in the saved text. A pending change of the site takes at most twice as many.
size_t bytes_of(const ListedSite& site) {
  constexpr size_t kLongestRest = 40;
  return site.host.size() + kLongestRest;
}

std::string settings_text(const Group& group) {
  std::string text = group.isEnabled ? "" : "disabled";
  for (const std::string& span : group.schedule.texts()) text += "; " + span;
  return text;
}

constexpr const char* kAnyHost = "a.example";

// What the list's file wants of a site or of a group's settings, as a text that wants_less() reads. Empty if the file
// does not block the site. The text does not name the site.
std::string wish_of(const ListedSite* site) {
  if (strength(site) < kWeakestSite) return "";
  ListedSite any = *site;
  any.host = kAnyHost;
  return line_of(any);
}
std::string wish_of(const Group& settings) {
  BlockList list;
  copy_settings(settings, list);
  return list.text();
}

// Whether the wish blocks less than an earlier wish.
bool wants_less(const std::string& wish, const std::string& earlier) {
  if (earlier.empty() || wish == earlier) return false;
  const BlockList after = BlockList::parse(wish), before = BlockList::parse(earlier);
  const ListedSite* site = before.find(kAnyHost);
  return site != nullptr ? blocks_less(after.find(kAnyHost), *site)
                         : blocks_less(after.groups().back(), before.groups().back());
}

// Without a suspension that has ended, so that setting the clock back does not begin it again.
ListedSite without_past(ListedSite site, Moment now) {
  if (site.until && !site.isSuspended(now)) site.until.reset();
  return site;
}

}  // namespace

bool blocks_less(const ListedSite* wanted, const ListedSite& held) {
  if (strength(wanted) < strength(&held)) return true;
  return wanted->until && (!held.until || *wanted->until > *held.until);
}

bool blocks_less(const Group& wanted, const Group& held) {
  if (wanted.delay < held.delay) return true;
  if (!held.isEnabled) return false;
  return !wanted.isEnabled || (!wanted.schedule.isEmpty() && wanted.schedule != held.schedule);
}

struct ListGuard::Update {
  Guarded* guarded = nullptr;
  std::optional<GroupIndex> wanted;  // the group in the file
};

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
    Json &leaving = group["leaving"] = Json::object(), &wanted = group["wanted"] = Json::object();
    for (const auto& [host, change] : guarded.leaving) {
      leaving[host] = left(change.moment);
      if (!change.wanted.empty()) wanted[host] = change.wanted;
    }
  }
  for (const auto& [key, since] : exceptions_) exceptions[key] = left(since);
  const Json header{{"running", now.running.count()},
                    {"wall", now.wall.time_since_epoch().count()},
                    {"start", now.start},
                    {"groups", groups},
                    {"exceptions", exceptions},
                    {"settings", exceptionSettings_}};
  return "# " + header.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n" + held_.text();
}

void ListGuard::load(std::string_view text, const Now& now) {
  const size_t end = std::min(text.find('\n'), text.size());
  ListGuard loaded(mostBytes_, mostExceptions_);
  try {
    const Json header = Json::parse(text.substr(std::min<size_t>(2, end), end - std::min<size_t>(2, end)));
    // The saved durations count from `start` on. If the machine was restarted meanwhile, `start` is the machine's
    // start, because it is not known how long the machine ran between save() and the restart.
    const Seconds saved(header.at("running").get<int64_t>());
    // "start" is empty if the keeper may not read it, as in the service's sandbox.
    const std::string savedStart = header.value("start", std::string());
    const bool isOtherStart = !savedStart.empty() && !now.start.empty() && savedStart != now.start;
    const bool isRestarted = now.running < saved || isOtherStart;
    const Seconds start = isRestarted ? Seconds(0) : saved;
    const auto moment = [&](const Json& left) { return start + Seconds(left.get<int64_t>()); };
    for (const auto& [name, group] : header.at("groups").items()) {
      Guarded& guarded = loaded.guarded_[name];
      guarded.hasCopy = group.at("hasCopy").get<bool>();
      if (group.contains("lockLeft")) {
        guarded.lockEnd = moment(group.at("lockLeft"));
        guarded.lockBegan = moment(group.at("lockBegan"));
        // A machine whose clock has no battery starts with an old time. Use the time of the last save if it is later.
        const Seconds wall = std::max(now.wall.time_since_epoch(), Seconds(header.value("wall", int64_t{0})));
        guarded.clock = isRestarted ? wall - now.running : Seconds(group.at("clock").get<int64_t>());
      }
      if (group.contains("request")) guarded.request = read_moment(group.at("request").get<std::string>());
      const Json wanted = group.value("wanted", Json::object());
      for (const auto& [host, left] : group.at("leaving").items())
        guarded.leaving[host] = {moment(left), wanted.value(host, std::string())};
    }
    for (const auto& [key, since] : header.at("exceptions").items()) loaded.exceptions_[key] = moment(since);
    loaded.exceptionSettings_ = header.value("settings", loaded.exceptionSettings_);
  } catch (const Json::exception& error) {
    throw InputError(std::string("not a saved guard: ") + error.what());
  }
  if (loaded.guarded_.size() > kMostGroups) throw InputError("too many groups");
  loaded.held_ = BlockList::parse(text.substr(end));
  *this = std::move(loaded);
}

bool ListGuard::update(const BlockList& file, const Now& now) {
  isChanged_ = false;
  due_.reset();
  const bool wasActive = isActive();
  takeRequests(file, now);
  updateGroups(file, now);
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
    exceptionSettings_.clear();
    heldBack_.clear();
    ignoresExceptions_ = false;
  }
  // Parse the copies again: removed lines would stay in the BlockList's memory.
  if (isChanged_) held_ = BlockList::parse(held_.text());
  return isChanged_;
}

// Brings the guard's copies of the groups up to date. Walks over each list once, because both may be large.
void ListGuard::updateGroups(const BlockList& file, const Now& now) {
  Updates updates;
  for (auto& [name, guarded] : guarded_) {
    guarded.unguardedSites = 0;
    if (guarded.lockEnd && *guarded.lockEnd <= now.running) {
      guarded.lockEnd.reset();
      isChanged_ = true;
    }
    if (guarded.lockEnd) noteDue(*guarded.lockEnd);
    if (!isGuarded(name, guarded, file)) continue;
    const std::optional<GroupIndex> wanted = file.findGroup(name);
    const GroupIndex held = group_named(held_, name);
    if (!guarded.hasCopy && wanted) copy_settings(file.groups()[*wanted], held_);
    isChanged_ = isChanged_ || !guarded.hasCopy;
    guarded.hasCopy = true;
    updateSettings(held, guarded, wanted ? &file.groups()[*wanted] : nullptr, now);
    updates.resize(held_.groups().size());
    updates[held] = {&guarded, wanted};
  }
  updates.resize(held_.groups().size());
  updateSites(updates, file, now);
  std::vector<std::string> released;
  for (const auto& [name, guarded] : guarded_) {
    if (guarded.hasCopy && !isGuarded(name, guarded, file)) released.push_back(name);
  }
  if (!released.empty()) release(released);
}

void ListGuard::updateSites(Updates& updates, const BlockList& file, const Now& now) {
  size_t bytes = 0;
  for (ListedSite& site : held_.sites()) {
    bytes += bytes_of(site);
    auto& [guarded, wanted] = updates[site.group];
    if (guarded == nullptr) continue;
    // During the lock, the suspensions of the group have no effect.
    if (guarded->lockEnd && site.until) {
      site.until.reset();
      held_.put(site);
    }
    const ListedSite* found = wanted ? file.find(site.host, *wanted) : nullptr;
    const auto other = found != nullptr ? std::optional(without_past(*found, now.wall)) : std::nullopt;
    const ListedSite* wish = other ? &*other : nullptr;
    if (!blocks_less(wish, site)) {
      stays(*guarded, site.host);
    } else if (mayLeave(*guarded, site.host, wish_of(wish), held_.groups()[site.group].delay, now) &&
               strength(wish) < kWeakestSite) {
      isChanged_ = held_.remove(site.host, site.group) || isChanged_;
    }
  }
  std::vector<std::optional<GroupIndex>> heldOf(file.groups().size());
  for (size_t i = 0; i < updates.size(); ++i) {
    if (updates[i].wanted) heldOf[*updates[i].wanted] = static_cast<GroupIndex>(i);
  }
  file.forEachSite([&](const ListedSite& site) {
    const auto held = heldOf[site.group];
    if (!held || site.scope == Scope::Exception || updates[*held].guarded->leaving.contains(site.host)) return;
    if (held_.find(site.host, *held) == nullptr) {
      if (bytes + bytes_of(site) > mostBytes_) {
        ++updates[*held].guarded->unguardedSites;
        return;
      }
      bytes += bytes_of(site);
    }
    ListedSite copy = without_past(site, now.wall);
    copy.group = *held;
    if (updates[*held].guarded->lockEnd) copy.until.reset();
    isChanged_ = held_.put(std::move(copy)) || isChanged_;
  });
}

// Forgets the guard's copies of these groups.
void ListGuard::release(const std::vector<std::string>& names) {
  isChanged_ = true;
  std::vector<bool> isReleased(held_.groups().size());
  for (const std::string& name : names) {
    Guarded& guarded = guarded_[name];
    guarded.hasCopy = false;
    guarded.leaving.clear();
    if (const auto held = held_.findGroup(name)) isReleased[*held] = true;
  }
  BlockList kept;
  std::vector<GroupIndex> indexes(held_.groups().size(), kDefaultGroup);
  for (size_t i = 0; i < isReleased.size(); ++i) {
    const Group& group = held_.groups()[i];
    if (!isReleased[i] && !group.name.empty()) indexes[i] = copy_settings(group, kept);
  }
  held_.forEachSite([&](ListedSite site) {
    if (isReleased[site.group]) return;
    site.group = indexes[site.group];
    kept.put(std::move(site));
  });
  held_ = std::move(kept);
}

bool ListGuard::isGuarded(const std::string& name, const Guarded& guarded, const BlockList& file) const {
  const auto held = held_.findGroup(name), wanted = file.findGroup(name);
  return guarded.lockEnd || (guarded.hasCopy && held && held_.groups()[*held].delay.count() > 0) ||
         (wanted && file.groups()[*wanted].delay.count() > 0);
}

void ListGuard::takeRequests(const BlockList& file, const Now& now) {
  refusedGroups_.clear();
  for (const Group& group : file.groups()) {
    if (group.name.empty() || (group.delay.count() == 0 && !group.lockUntil)) continue;
    if (guarded_.size() >= kMostGroups && !guarded_.contains(group.name)) {
      refusedGroups_.push_back(group.name);
      continue;
    }
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
  } else if (!mayLeave(guarded, "", wish_of(after), before.delay, now)) {
    after = before;
    if (wanted != nullptr) after.delay = std::max(before.delay, wanted->delay);
  }
  if (after == before) return;
  copy_settings(after, held_);
  isChanged_ = true;
}

// Notes a change that makes the group block less, and returns whether it may have an effect now. `key`: the host of the
// change; "" if the change is one of the group's settings. `wanted`: the wish of the file.
bool ListGuard::mayLeave(Guarded& guarded, const std::string& key, const std::string& wanted, Seconds delay,
                         const Now& now) {
  const auto [entry, isNew] = guarded.leaving.try_emplace(key, PendingChange{now.running + delay, wanted});
  PendingChange& change = entry->second;
  if (wants_less(wanted, change.wanted)) change.moment = now.running + delay;
  isChanged_ = isChanged_ || isNew || change.wanted != wanted;
  change.wanted = wanted;
  if (guarded.lockEnd) return false;
  if (change.moment > now.running) {
    noteDue(change.moment);
    return false;
  }
  guarded.leaving.erase(entry);
  isChanged_ = true;
  return true;
}

void ListGuard::stays(Guarded& guarded, const std::string& key) {
  isChanged_ = guarded.leaving.erase(key) > 0 || isChanged_;
}

// The guard's copy of a group; nothing if it has none.
std::optional<GroupIndex> ListGuard::heldGroup(const std::string& name) const {
  const auto found = guarded_.find(name);
  return found != guarded_.end() && found->second.hasCopy ? held_.findGroup(name) : std::nullopt;
}

// Finds the exceptions that have no effect now.
void ListGuard::updateExceptions(const BlockList& file, const Now& now, bool wasActive) {
  heldBack_.clear();
  ignoresExceptions_ = false;
  std::vector<std::string_view> hosts;
  file.forEachSite([&](const ListedSite& site) {
    if (site.scope == Scope::Exception) hosts.push_back(site.host);
  });
  const auto concerned = groups_opened_by(held_, hosts);
  std::vector<const Guarded*> guarded(held_.groups().size());  // by the group in held_
  for (const auto& [name, each] : guarded_) {
    if (const auto held = heldGroup(name)) guarded[*held] = &each;
  }
  std::map<std::string, Seconds> seen;
  std::map<std::string, std::string> settings;
  std::map<std::pair<GroupIndex, Seconds>, bool> isInForce;  // by the group in the file, and Guarded::clock
  const auto isInForceOnBothClocks = [&](const ListedSite& exception, const Group& group, Seconds clock) {
    const auto [entry, isNew] = isInForce.try_emplace({exception.group, clock});
    if (!isNew) return entry->second;
    const Moment unset(now.running + clock);
    if (const auto next = group.nextChange(unset)) noteDue(now.running + (*next - unset));
    return entry->second = group.isInForce(unset) && group.isInForce(now.wall);
  };
  file.forEachSite([&](const ListedSite& site) {
    if (site.scope != Scope::Exception) return;
    const auto held = heldGroup(file.groupOf(site).name);
    if (held && held_.find(site.host, *held) != nullptr) return;
    const Group& group = held ? held_.groups()[*held] : file.groupOf(site);
    const std::vector<GroupIndex>& groups = concerned.at(site.host);
    const auto [text, isNewGroup] = settings.try_emplace(group.name);
    if (isNewGroup) text->second = settings_text(group);
    const auto before = exceptionSettings_.find(group.name);
    const std::string key = site.host + " " + group.name;
    const auto known = before != exceptionSettings_.end() && before->second == text->second ? exceptions_.find(key)
                                                                                            : exceptions_.end();
    // If the guard was not active before, the exception is older than the guard, and has an effect: it counts as old
    // enough for every delay.
    const Seconds since = known != exceptions_.end() ? known->second
                          : wasActive                ? now.running
                                                     : now.running - kLongestDelay;
    const bool isRemembered = seen.size() < mostExceptions_;
    if (isRemembered) seen.emplace(key, since);
    bool isHeldBack = !isRemembered && !groups.empty();
    ignoresExceptions_ = ignoresExceptions_ || isHeldBack;
    for (const GroupIndex each : groups) {
      if (isHeldBack) break;
      const Guarded& guard = *guarded[each];
      const bool isLocked = guard.lockEnd && since >= guard.lockBegan;
      const Seconds end = since + held_.groups()[each].delay;
      if (!isLocked && end > now.running) noteDue(end);
      isHeldBack = isLocked || end > now.running || (guard.lockEnd && !isInForceOnBothClocks(site, group, guard.clock));
    }
    if (isHeldBack) heldBack_.emplace(group.name, site.host);
  });
  isChanged_ = isChanged_ || seen != exceptions_ || settings != exceptionSettings_;
  exceptions_ = std::move(seen);
  exceptionSettings_ = std::move(settings);
}

bool ListGuard::isActive() const {
  return std::any_of(guarded_.begin(), guarded_.end(), [](const auto& entry) { return entry.second.hasCopy; });
}

// The list of the file, but with the settings and sites that the guard's copy has of each guarded group. Exceptions,
// and sites that the copy lacks, come from the file.
BlockList ListGuard::withHeldGroups(const BlockList& file) const {
  BlockList list;
  const auto copy = [&](const BlockList& from, bool isHeld) {
    std::vector<GroupIndex> indexes;
    for (const Group& group : from.groups()) {
      const bool hasSettings = !group.name.empty() && heldGroup(group.name).has_value() == isHeld;
      const bool isNamed = !group.name.empty();
      indexes.push_back(hasSettings ? copy_settings(group, list)
                        : isNamed   ? group_named(list, group.name)
                                    : kDefaultGroup);
    }
    from.forEachSite([&](ListedSite site) {
      site.group = indexes[site.group];
      if (list.find(site.host, site.group) == nullptr) list.put(std::move(site));
    });
  };
  copy(held_, true);
  copy(file, false);
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

uint64_t ListGuard::unguardedSites(std::string_view group) const {
  const auto found = guarded_.find(group);
  return found == guarded_.end() ? 0 : found->second.unguardedSites;
}

const ListGuard::Changes& ListGuard::pendingChanges(std::string_view group) const {
  static const Changes kNone;
  const auto found = guarded_.find(group);
  return found == guarded_.end() ? kNone : found->second.leaving;
}

}  // namespace orvane
