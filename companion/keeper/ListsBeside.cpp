#include "companion/keeper/ListsBeside.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "companion/list/BlockListLine.h"
#include "companion/list/ListFile.h"
#include "companion/list/UnitedNames.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "platform/names/Subdomains.h"

namespace orvane {
namespace {

// The lines of a fetched list that contain `part`, and the headers of groups. Parsing all lines of large lists would
// take seconds. orvane-fetcher writes host names as browsers send them, so a name has only one spelling.
std::string lines_with(std::string_view text, std::string_view part) {
  std::string lines;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (line.starts_with('[') || line.find(part) != std::string_view::npos) lines.append(line) += '\n';
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return lines;
}

}  // namespace

std::optional<LineBeside> find_line(const std::vector<ListPart>& parts, Rank rank, bool isException,
                                    const std::string& host) {
  for (const ListPart& part : parts) {
    if (part.list->rank() != rank) continue;
    for (const auto& section : part.list->sections) {
      const auto find = [&](std::string_view site, Scope scope) -> std::optional<LineBeside> {
        LineBeside line{part.path, part.list->kind, rank, {std::string(site), scope, {}}, section.group};
        return section.names.contains(name_of(line.site)) ? std::optional(std::move(line)) : std::nullopt;
      };
      if (!isException) {
        if (auto line = find(host, Scope::ExactName)) return line;
      }
      for (std::string_view site : covering_hosts(host)) {
        if (auto line = find(site, isException ? Scope::Exception : Scope::Subdomains)) return line;
      }
    }
  }
  return std::nullopt;
}

std::optional<LineBeside> find_inactive_line(std::vector<ListPart> parts, const std::string& host) {
  for (ListPart& part : parts) part.list = part.inactive;
  return find_line(parts, Rank::Open, false, host);  // the lists of the rank Fixed are always in force
}

bool is_blocked(const BlockList& list, const std::vector<ListPart>& parts, const std::string& host, Moment now,
                const GroupStates& states) {
  const auto covering = covering_hosts(host);
  if (covering.empty()) return false;
  const std::string below = "." + std::string(covering.back());
  std::vector<std::string> names;
  std::vector<std::pair<std::string, Moment>> suspended;
  list.forEachSite([&](const ListedSite& site) {
    if (!states.isInForce[site.group] || !("." + site.host).ends_with(below)) return;
    if (site.isSuspended(now)) {
      suspended.emplace_back(name_of(site), *site.until);
    } else {
      names.push_back(name_of(site));
    }
  });
  const PackedNames own(names);
  std::erase_if(suspended, [&](const auto& entry) { return own.contains(entry.first); });
  std::vector<RankedNames> lists{{Rank::Own, &own}};
  for (const ListPart& part : parts) {
    for (const auto& section : part.list->sections) lists.push_back({part.list->rank(), &section.names});
  }
  const std::vector<std::string> sent = unite(lists, suspended);
  const auto isSent = [&](const std::string& name) { return std::binary_search(sent.begin(), sent.end(), name); };
  bool isBlocked = isSent(host);
  for (std::string_view site : covering) {
    if (isSent(std::string(kExceptionMark).append(site))) return false;
    isBlocked = isBlocked || isSent(std::string(kSubdomainsMark).append(site));
  }
  return isBlocked;
}

std::string line_text(const LineBeside& line) {
  return "the line " + in_quotes(line_of(line.site)) + " of the " +
         (line.kind == ListKind::DropIn ? "administrator's" : "fetched") + " list " + in_quotes(line.path);
}

ListsBeside::ListsBeside(const std::optional<KeeperState>& keeper) {
  if (!keeper) return;
  for (const auto& group : keeper->groups) groups_[group.name] = group.isInForce;
  for (const auto& list : keeper->readOnlyLists) {
    if (list.isInForce)
      files_.push_back({list.path, list.isDropIn ? ListKind::DropIn : ListKind::Subscription, {}, {}});
  }
}

ListPart ListsBeside::partOf(const File& file, std::string_view text) const {
  auto list = std::make_shared<ReadOnlyList>(ReadOnlyList::parse(text, file.kind));
  auto inactive = std::make_shared<ReadOnlyList>(*list);
  std::erase_if(list->sections, [&](const auto& section) { return !inactive->isInForce(section, groups_); });
  std::erase_if(inactive->sections, [&](const auto& section) { return list->isInForce(section, groups_); });
  return {file.path, std::move(list), std::move(inactive)};
}

std::vector<ListPart> ListsBeside::partsAbout(const std::string& host) {
  std::vector<ListPart> parts;
  const auto covering = covering_hosts(host);
  if (covering.empty()) return parts;
  for (File& file : files_) {
    try {
      if (!file.text) file.text = read_list_file(file.path).text;
    } catch (const FileError& error) {
      print_error(error.what());
      file.text.emplace();
    }
    if (file.kind == ListKind::Subscription) {
      parts.push_back(partOf(file, lines_with(*file.text, covering.back())));
    } else {
      if (!file.whole) file.whole = partOf(file, *file.text);
      parts.push_back(*file.whole);
    }
  }
  return parts;
}

std::optional<LineBeside> ListsBeside::blockingLine(const std::string& host) {
  const auto parts = partsAbout(host);
  if (find_line(parts, Rank::Fixed, true, host)) return std::nullopt;
  if (auto line = find_line(parts, Rank::Fixed, false, host)) return line;
  return find_line(parts, Rank::Open, true, host) ? std::nullopt : find_line(parts, Rank::Open, false, host);
}

}  // namespace orvane
