#include "companion/list/BlockList.h"

#include <algorithm>

#include "companion/list/BlockListLine.h"
#include "companion/text/HostnameList.h"
#include "platform/KeyedHash.h"
#include "platform/linux/base/Subdomains.h"

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

// The comment of a line, with the white space before it.
std::string_view comment_of(std::string_view line) {
  std::string_view words = without_comment(line);
  return words.size() == line.size() ? std::string_view() : line.substr(trimmed(words).end() - line.begin());
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

BlockList BlockList::parse(std::string_view text) {
  BlockList list;
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  list.lines_.reserve(lines);
  list.lineByHost_.reserve(lines);
  bool first = true;
  while (!text.empty()) {
    size_t end = std::min(text.find('\n'), text.size());
    std::string_view given = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    std::string_view words = given;
    if (first && words.substr(0, kByteOrderMark.size()) == kByteOrderMark) words.remove_prefix(kByteOrderMark.size());
    first = false;
    words = trimmed(without_comment(words));
    ListedSite site;
    std::string fault;
    if (words.empty()) {
      list.append({std::string(given), std::nullopt});
    } else if (read_line(words, Scope::Subdomains, site, fault)) {
      const bool isCanonical = given == line_of(site);
      list.append({isCanonical ? std::string() : std::string(given), std::move(site)});
    } else {
      list.append({std::string(given), std::nullopt});
      list.badLines_.push_back({list.lines_.size(), std::string(words.substr(0, kBadLineKept)), std::move(fault)});
    }
  }
  return list;
}

std::string BlockList::text() const {
  std::string text;
  constexpr size_t kUsualLine = 32;
  text.reserve(lines_.size() * kUsualLine);
  for (const Line& line : lines_) {
    if (line.isRemoved) continue;
    text += line.site && line.text.empty() ? line_of(*line.site) : line.text;
    text += '\n';
  }
  return text;
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

const ListedSite* BlockList::find(std::string_view host) const {
  auto found = locate(host);
  return found == lineByHost_.end() ? nullptr : &*lines_[found->second].site;
}

BlockList::LineByHost::const_iterator BlockList::locate(std::string_view host) const {
  auto [found, end] = lineByHost_.equal_range(keyed_hash(host));
  while (found != end && lines_[found->second].site->host != host) ++found;
  return found == end ? lineByHost_.end() : found;
}

bool BlockList::put(ListedSite site) {
  auto found = locate(site.host);
  if (found == lineByHost_.end()) {
    append({"", std::move(site)});
    return true;
  }
  Line& line = lines_[found->second];
  if (*line.site == site) return false;
  std::string comment(comment_of(line.text));
  line.text = comment.empty() ? "" : line_of(site) + comment;
  line.site = std::move(site);
  return true;
}

bool BlockList::remove(std::string_view host) {
  auto found = locate(host);
  if (found == lineByHost_.end()) return false;
  // Remove all lines of the site, because without the last line, an earlier line of the site would take effect.
  for (uint32_t i = found->second; i != kNone; i = lines_[i].earlier) {
    lines_[i].isRemoved = true;
    lines_[i].site.reset();
  }
  lineByHost_.erase(found);
  return true;
}

void BlockList::append(Line line) {
  if (line.site) {
    const auto here = static_cast<uint32_t>(lines_.size());
    const std::string& host = line.site->host;
    if (auto found = locate(host); found != lineByHost_.end()) {
      line.earlier = found->second;
      lines_[line.earlier].isSuperseded = true;
      lineByHost_.erase(found);
    }
    lineByHost_.emplace(keyed_hash(host), here);
  }
  lines_.push_back(std::move(line));
}

Decision decide(const BlockList& list, std::string_view host, Moment now) {
  Decision decision;
  for (std::string_view covering : covering_hosts(host)) {
    const ListedSite* site = list.find(covering);
    if (site == nullptr || (site->scope == Scope::ExactName && covering != host)) continue;
    if (site->scope == Scope::Exception) {
      if (decision.exception == nullptr) decision.exception = site;
    } else if (!site->isSuspended(now)) {
      if (decision.blocking == nullptr) decision.blocking = site;
    } else if (decision.suspended == nullptr || *site->until < *decision.suspended->until) {
      decision.suspended = site;
    }
  }
  return decision;
}

HeldNames held_names(const BlockList& list, Moment now) {
  HeldNames held;
  held.names.reserve(list.size());
  list.forEachSite([&](const ListedSite& site) {
    if (site.isSuspended(now)) {
      held.suspended.emplace_back(name_of(site), *site.until);
    } else {
      held.names.push_back(name_of(site));
    }
  });
  std::sort(held.names.begin(), held.names.end());
  std::sort(held.suspended.begin(), held.suspended.end());
  for (const auto& [name, until] : held.suspended) held.nextChange = std::min(held.nextChange.value_or(until), until);
  return held;
}

}  // namespace orvane
