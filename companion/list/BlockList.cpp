#include "companion/list/BlockList.h"

#include <algorithm>
#include <span>
#include <tuple>

#include "companion/list/BlockListLine.h"
#include "companion/text/HostnameList.h"
#include "platform/names/Subdomains.h"

namespace orvane {
namespace {

constexpr std::string_view kUsualPrefixes[] = {"www.", "m."};
constexpr size_t kBadLineKept = 200;

// The name without its prefix "www." or "m.", if it has one and the rest can be the name of a site; otherwise the whole
// name.
std::string_view without_prefix(std::string_view host) {
  for (std::string_view prefix : kUsualPrefixes) {
    if (host.substr(0, prefix.size()) != prefix) continue;
    std::string_view rest = host.substr(prefix.size());
    if (rest.find('.') != std::string_view::npos && !is_public_suffix(rest)) return rest;
  }
  return host;
}

uint32_t hash_of(std::string_view host) { return static_cast<uint32_t>(keyed_hash(host)); }

// The comment of a line, with the white space before it.
std::string_view comment_of(std::string_view line) {
  std::string_view words = without_comment(line);
  return words.size() == line.size() ? std::string_view() : line.substr(trimmed(words).end() - line.begin());
}

// A name that sort_names() sorts: its position, and eight of its bytes as a big-endian number.
struct SortedName {
  uint64_t bytes;
  uint32_t position;
};

uint64_t bytes_at(const std::string& name, size_t offset) {
  uint64_t bytes = 0;
  for (size_t i = offset; i < offset + sizeof bytes; ++i)
    bytes = bytes << 8 | (i < name.size() ? static_cast<unsigned char>(name[i]) : 0);
  return bytes;
}

// Sorts names that are equal up to `offset`.
void sort_from(size_t offset, std::span<SortedName> sorted, const std::vector<std::string>& names) {
  for (SortedName& each : sorted) each.bytes = bytes_at(names[each.position], offset);
  std::sort(sorted.begin(), sorted.end(), [](const auto& one, const auto& other) { return one.bytes < other.bytes; });
  for (size_t begin = 0, end = 0; begin < sorted.size(); begin = end) {
    while (end < sorted.size() && sorted[end].bytes == sorted[begin].bytes) ++end;
    const bool isAtEnd = (sorted[begin].bytes & 0xff) == 0;  // the names end here: no name contains a zero byte
    if (end - begin > 1 && !isAtEnd) sort_from(offset + sizeof(uint64_t), sorted.subspan(begin, end - begin), names);
  }
}

// std::sort() on a million names would mostly wait for memory. So this function compares eight bytes at a time, and
// keeps these bytes in one array.
void sort_names(std::vector<std::string>& names) {
  if (std::is_sorted(names.begin(), names.end())) return;
  std::vector<SortedName> order(names.size());
  for (size_t i = 0; i < order.size(); ++i) order[i].position = static_cast<uint32_t>(i);
  sort_from(0, order, names);
  std::vector<std::string> sorted;
  sorted.reserve(names.size());
  for (const SortedName& each : order) sorted.push_back(std::move(names[each.position]));
  names = std::move(sorted);
}

}  // namespace

std::string_view site_of(std::string_view host) {
  std::string_view site = without_prefix(host);
  return without_prefix(site) == site ? site : host;
}

bool has_subdomains(const ListedSite& site) {
  const bool isSuffix = site.host.find('.') == std::string::npos || is_public_suffix(site.host);
  return site.scope != Scope::ExactName && !isSuffix;
}

std::string name_of(const ListedSite& site) {
  switch (site.scope) {
    case Scope::Subdomains:
      return std::string(kSubdomainsMark) + site.host;
    case Scope::Exception:
      return std::string(kExceptionMark) + site.host;
    case Scope::ExactName:
      break;
  }
  return site.host;
}

std::string_view host_of(std::string_view name) {
  for (std::string_view mark : {kExceptionMark, kSubdomainsMark}) {
    if (name.starts_with(mark)) return name.substr(mark.size());
  }
  return name;
}

BlockList BlockList::parse(std::string_view text) {
  BlockList list;
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  list.lines_.reserve(lines);
  list.lineByHost_.reserve(lines);
  std::optional<GroupIndex> group = kDefaultGroup;
  bool isStart = true;  // only comments so far
  while (!text.empty()) {
    size_t end = std::min(text.find('\n'), text.size());
    std::string_view given = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    std::string_view words = given;
    if (list.lines_.empty() && words.starts_with(kByteOrderMark)) words.remove_prefix(kByteOrderMark.size());
    words = trimmed(without_comment(words));
    list.parseLine(given, words, group);
    Section& section = list.sections_[list.lines_.back().group];
    isStart = isStart && words.empty() && !trimmed(given).empty();
    if (isStart) section.settings = list.lines_.size();
    // Comments at the end of a section may be about the next section, so `end` is before them.
    if (isStart || (group && !words.empty())) section.end = list.lines_.size();
  }
  list.parsedLines_ = list.lines_.size();
  return list;
}

// Appends the line `given`, whose content without its comment is `words`. A header changes `group`, which is nothing
// after a bad header.
void BlockList::parseLine(std::string_view given, std::string_view words, std::optional<GroupIndex>& group) {
  Line line;
  std::string fault;
  if (words.empty()) {
  } else if (const auto name = group_in_header(words)) {
    group = findGroup(*name);
    if (!group) fault = groups_.size() < kMostGroups ? group_name_fault(*name) : kTooManyGroupsFault;
    if (!group && fault.empty()) {
      group = static_cast<GroupIndex>(groups_.size());
      groups_.push_back({std::string(*name), true, {}, {}, {}});
      sections_.push_back({lines_.size() + 1, 0});
    }
    if (group) line.kind = Kind::Header;
  } else if (!group) {
    fault = kBadGroupFault;
  } else if (!key_of_setting(words).empty()) {
    if (read_setting(words, groups_[*group], fault)) line.kind = Kind::Setting;
  } else if (ListedSite site; read_line(words, Scope::Subdomains, site, fault)) {
    site.group = *group;
    line.site = std::move(site);
  }
  // Most lines are a host and nothing else. For these, the first comparison avoids the cost of line_of().
  if (!line.site || (given != line.site->host && given != line_of(*line.site))) line.text = given;
  if (!fault.empty())
    badLines_.push_back({lines_.size() + 1, std::string(words.substr(0, kBadLineKept)), std::move(fault)});
  line.group = group.value_or(kDefaultGroup);
  append(std::move(line));
}

std::string BlockList::textOf(const Line& line) const {
  return (line.site && line.text.empty() ? line_of(*line.site) : line.text) + '\n';
}

size_t BlockList::placeOf(const Line& line) const {
  const Section& section = sections_[line.group];
  return line.kind == Kind::Other ? section.end : section.settings;
}

// The indexes of the lines that were added after parse(), in the order of their places.
std::vector<uint32_t> BlockList::addedLines() const {
  std::vector<uint32_t> added;
  for (size_t i = parsedLines_; i < lines_.size(); ++i) added.push_back(static_cast<uint32_t>(i));
  const auto key = [this](uint32_t i) { return std::tuple(placeOf(lines_[i]), lines_[i].group, lines_[i].kind); };
  std::stable_sort(added.begin(), added.end(), [&](uint32_t one, uint32_t other) { return key(one) < key(other); });
  return added;
}

std::string BlockList::text() const {
  std::string text;
  constexpr size_t kUsualLine = 32;
  text.reserve(lines_.size() * kUsualLine);
  const std::vector<uint32_t> added = addedLines();
  auto next = added.begin();
  for (size_t i = 0; i <= parsedLines_; ++i) {
    for (; next != added.end() && placeOf(lines_[*next]) <= i; ++next) {
      const Line& line = lines_[*next];
      if (line.isRemoved) continue;
      if (line.kind == Kind::Header && !text.empty()) text += '\n';
      text += textOf(line);
    }
    if (i < parsedLines_ && !lines_[i].isRemoved) text += textOf(lines_[i]);
  }
  return text;
}

std::optional<GroupIndex> BlockList::findGroup(std::string_view name) const {
  for (size_t i = 0; i < groups_.size(); ++i) {
    if (!name.empty() && groups_[i].name == name) return static_cast<GroupIndex>(i);
  }
  return std::nullopt;
}

GroupIndex BlockList::addGroup(std::string_view name) {
  const auto group = static_cast<GroupIndex>(groups_.size());
  groups_.push_back({std::string(name), true, {}, {}, {}});
  sections_.push_back({parsedLines_, parsedLines_});
  Line header;
  header.text = header_of(name);
  header.group = group;
  header.kind = Kind::Header;
  append(std::move(header));
  return group;
}

void BlockList::removeGroup(GroupIndex group) {
  for (Line& line : lines_) {
    if (line.group != group) continue;
    if (line.site && !line.isSuperseded) lineByHost_.remove(locate(line.site->host, hash_of(line.site->host), group));
    line.isRemoved = true;
  }
  for (Line& line : lines_) {
    if (line.isRemoved) line.site.reset();
  }
  groups_[group] = {"", false, {}, {}, {}};
}

void BlockList::setSetting(GroupIndex group, std::string_view key, const std::vector<std::string>& values) {
  for (Line& line : lines_) {
    if (line.group == group && line.kind == Kind::Setting && key_of_setting(trimmed(line.text)) == key)
      line.isRemoved = true;
  }
  Group& changed = groups_[group];
  if (key == kScheduleKey) changed.schedule = {};
  if (key == kEnabledKey) changed.isEnabled = true;
  if (key == kDelayKey) changed.delay = {};
  if (key == kLockUntilKey) changed.lockUntil.reset();
  for (const std::string& value : values) {
    Line line;
    line.text = setting_line(key, value);
    line.group = group;
    line.kind = Kind::Setting;
    std::string fault;
    read_setting(line.text, changed, fault);
    append(std::move(line));
  }
}

std::vector<ListedSite> BlockList::sites() const {
  std::vector<ListedSite> sites;
  sites.reserve(lineByHost_.size());
  forEachSite([&](const ListedSite& site) { sites.push_back(site); });
  return sites;
}

void BlockList::forEachSite(const std::function<void(const ListedSite&)>& visit) const {
  for (const Line& line : lines_) {
    if (line.site && !line.isSuperseded) visit(*line.site);
  }
}

size_t BlockList::blockingSize() const {
  size_t size = 0;
  forEachSite([&](const ListedSite& site) { size += site.scope == Scope::Exception ? 0 : 1; });
  return size;
}

std::vector<size_t> BlockList::sitesOfGroups() const {
  std::vector<size_t> counts(groups_.size());
  forEachSite([&](const ListedSite& site) { ++counts[site.group]; });
  return counts;
}

const ListedSite* BlockList::find(std::string_view host, GroupIndex group) const {
  const auto found = locate(host, hash_of(host), group);
  return found == LineTable::kNotFound ? nullptr : &*lines_[lineByHost_.line(found)].site;
}

void BlockList::forEachSiteOf(std::string_view host, const std::function<void(const ListedSite&)>& visit) const {
  locateIf(host, hash_of(host), [&](const ListedSite& site) {
    visit(site);
    return false;
  });
}

template <class Predicate>
LineTable::Position BlockList::locateIf(std::string_view host, uint32_t hash, Predicate isWanted) const {
  return lineByHost_.findIf(hash, [&](uint32_t line) {
    const ListedSite& site = *lines_[line].site;
    return site.host == host && isWanted(site);
  });
}

LineTable::Position BlockList::locate(std::string_view host, uint32_t hash, GroupIndex group) const {
  return locateIf(host, hash, [&](const ListedSite& site) { return site.group == group; });
}

bool BlockList::put(ListedSite site) {
  const auto found = locate(site.host, hash_of(site.host), site.group);
  if (found == LineTable::kNotFound) {
    Line line;
    line.group = site.group;
    line.site = std::move(site);
    append(std::move(line));
    return true;
  }
  Line& line = lines_[lineByHost_.line(found)];
  if (*line.site == site) return false;
  std::string comment(comment_of(line.text));
  line.text = comment.empty() ? "" : line_of(site) + comment;
  line.site = std::move(site);
  return true;
}

bool BlockList::remove(std::string_view host, GroupIndex group) {
  const auto found = locate(host, hash_of(host), group);
  if (found == LineTable::kNotFound) return false;
  // Remove all lines of the site, because without the last line, an earlier line of the site would take effect.
  for (uint32_t i = lineByHost_.line(found); i != kNone; i = lines_[i].earlier) {
    lines_[i].isRemoved = true;
    lines_[i].site.reset();
  }
  lineByHost_.remove(found);
  return true;
}

void BlockList::append(Line line) {
  if (line.site) {
    const auto here = static_cast<uint32_t>(lines_.size());
    const uint32_t hash = hash_of(line.site->host);
    if (const auto found = locate(line.site->host, hash, line.group); found != LineTable::kNotFound) {
      line.earlier = lineByHost_.line(found);
      lines_[line.earlier].isSuperseded = true;
      lineByHost_.setLine(found, here);
    } else {
      lineByHost_.add(hash, here);
    }
  }
  lines_.push_back(std::move(line));
}

GroupIndex copy_settings(const Group& group, BlockList& list) {
  const auto known = list.findGroup(group.name);
  const GroupIndex index = known ? *known : list.addGroup(group.name);
  using Values = std::vector<std::string>;
  const Group before = list.groups()[index];
  // Set only what differs, because each call of setSetting() looks through all lines.
  if (group.schedule != before.schedule) list.setSetting(index, kScheduleKey, group.schedule.texts());
  if (group.isEnabled != before.isEnabled)
    list.setSetting(index, kEnabledKey, group.isEnabled ? Values{} : Values{"no"});
  if (group.delay != before.delay)
    list.setSetting(index, kDelayKey, group.delay.count() == 0 ? Values{} : Values{delay_text(group.delay)});
  return index;
}

bool has_same_settings(const Group& one, const Group& other) {
  return one.isEnabled == other.isEnabled && one.schedule == other.schedule && one.delay == other.delay;
}

GroupStates group_states(const BlockList& list, Moment now) {
  GroupStates states;
  for (const Group& group : list.groups()) {
    states.isInForce.push_back(group.isInForce(now));
    if (const auto next = group.nextChange(now)) states.nextChange = std::min(states.nextChange.value_or(*next), *next);
  }
  return states;
}

Decision decide(const BlockList& list, std::string_view host, Moment now, const GroupStates& states) {
  Decision decision;
  const auto consider = [&](const ListedSite& site) {
    const bool isInForce = states.isInForce[site.group];
    if (site.scope == Scope::Exception) {
      if (isInForce && decision.exception == nullptr) decision.exception = &site;
    } else if (!isInForce) {
      if (decision.inactive == nullptr) decision.inactive = &site;
    } else if (!site.isSuspended(now)) {
      if (decision.blocking == nullptr) decision.blocking = &site;
    } else if (decision.suspended == nullptr || *site.until < *decision.suspended->until) {
      decision.suspended = &site;
    }
  };
  for (std::string_view covering : covering_hosts(host)) {
    std::vector<const ListedSite*> sites;
    list.forEachSiteOf(covering, [&](const ListedSite& site) {
      if (site.scope != Scope::ExactName || covering == host) sites.push_back(&site);
    });
    std::sort(sites.begin(), sites.end(), [](const auto* one, const auto* other) { return one->group < other->group; });
    for (const ListedSite* site : sites) consider(*site);
  }
  return decision;
}

Decision decide(const BlockList& list, std::string_view host, Moment now) {
  return decide(list, host, now, group_states(list, now));
}

std::unordered_map<std::string_view, std::vector<GroupIndex>, KeyedHash> groups_opened_by(
    const BlockList& list, const std::vector<std::string_view>& hosts) {
  std::unordered_map<std::string_view, std::vector<GroupIndex>, KeyedHash> opened;
  for (const std::string_view host : hosts) opened.try_emplace(host);
  if (opened.empty()) return opened;
  const auto add = [](std::vector<GroupIndex>& groups, const ListedSite& site) {
    if (std::find(groups.begin(), groups.end(), site.group) == groups.end()) groups.push_back(site.group);
  };
  list.forEachSite([&](const ListedSite& site) {
    if (site.scope == Scope::Exception) return;
    for (std::string_view host = site.host;; host.remove_prefix(host.find('.') + 1)) {
      if (const auto found = opened.find(host); found != opened.end()) add(found->second, site);
      if (host.find('.') == std::string_view::npos) return;
    }
  });
  for (auto& [host, groups] : opened) {
    for (const std::string_view covering : covering_hosts(host)) {
      list.forEachSiteOf(covering, [&, &groups = groups](const ListedSite& site) {
        if (site.scope == Scope::Subdomains) add(groups, site);
      });
    }
  }
  return opened;
}

HeldNames held_names(const BlockList& list, Moment now, const GroupStates& states) {
  HeldNames held;
  held.names.reserve(list.size());
  held.nextChange = states.nextChange;
  list.forEachSite([&](const ListedSite& site) {
    if (!states.isInForce[site.group]) return;
    if (site.isSuspended(now)) {
      held.suspended.emplace_back(name_of(site), *site.until);
    } else {
      held.names.push_back(name_of(site));
    }
  });
  sort_names(held.names);
  held.names.erase(std::unique(held.names.begin(), held.names.end()), held.names.end());
  // If groups suspend a name until different moments, the first of these moments ends its suspension. A group that does
  // not suspend the name blocks it.
  std::sort(held.suspended.begin(), held.suspended.end());
  const auto hasSameName = [](const auto& one, const auto& other) { return one.first == other.first; };
  held.suspended.erase(std::unique(held.suspended.begin(), held.suspended.end(), hasSameName), held.suspended.end());
  std::erase_if(held.suspended, [&](const auto& entry) {
    return std::binary_search(held.names.begin(), held.names.end(), entry.first);
  });
  for (const auto& [name, until] : held.suspended) held.nextChange = std::min(held.nextChange.value_or(until), until);
  return held;
}

HeldNames held_names(const BlockList& list, Moment now) { return held_names(list, now, group_states(list, now)); }

}  // namespace orvane
