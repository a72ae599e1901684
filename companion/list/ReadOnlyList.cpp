#include "companion/list/ReadOnlyList.h"

#include <algorithm>
#include <deque>
#include <utility>

#include "companion/list/BlockListLine.h"
#include "companion/list/Group.h"
#include "companion/text/HostnameList.h"
#include "platform/names/Subdomains.h"

namespace orvane {
namespace {

constexpr std::string_view kEnding = ".list";
constexpr size_t kBadLineKept = 200;

// The names of one group, in the order of their lines, each followed by a line end.
struct RawSection {
  std::string group;
  std::string names;
};

// If a host has several lines, only the last of them has an effect.
PackedNames pack(std::string_view lines) {
  std::vector<std::string_view> names;
  names.reserve(static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n')));
  for (; !lines.empty(); lines.remove_prefix(names.back().size() + 1))
    names.push_back(lines.substr(0, lines.find('\n')));
  std::reverse(names.begin(), names.end());
  std::stable_sort(names.begin(), names.end(), [](auto one, auto other) { return host_of(one) < host_of(other); });
  const auto isSameHost = [](auto one, auto other) { return host_of(one) == host_of(other); };
  names.erase(std::unique(names.begin(), names.end(), isSameHost), names.end());
  return PackedNames(std::move(names));
}

class Parser {
 public:
  Parser(ListKind kind, std::string* goodLines) : goodLines_(goodLines) { list_.kind = kind; }

  // `words`: a line without its comment.
  void take(size_t number, std::string_view words) {
    std::string fault;
    if (const auto group = group_in_header(words)) {
      fault = takeHeader(*group);
      isInBadGroup_ = !fault.empty();
      // A drop-in is in force whatever its groups are, so an error in a header must not put its sites out of force.
      if (isInBadGroup_ && list_.kind == ListKind::DropIn) {
        current_ = 0;
        isInBadGroup_ = false;
        fault += "; the lines below it count for the group " + std::string(kDefaultGroupName);
        addGoodLine(header_of(kDefaultGroupName));
      }
    } else if (isInBadGroup_) {
      fault = kBadGroupFault;
    } else if (const std::string_view key = key_of_setting(words); !key.empty()) {
      fault = takeSetting(key, words.substr(words.find('=') + 1));
    } else if (read_line(words, Scope::Subdomains, site_, fault)) {
      fault = takeSite();
    }
    if (fault.empty()) return addGoodLine(words);
    if (list_.badLineCount++ < ReadOnlyList::kBadLinesKept)
      list_.badLines.push_back({number, std::string(words.substr(0, kBadLineKept)), std::move(fault)});
  }

  ReadOnlyList result() {
    for (RawSection& section : sections_) {
      if (!section.names.empty()) list_.sections.push_back({std::move(section.group), pack(section.names)});
      section.names = {};
    }
    return std::move(list_);
  }

 private:
  void addGoodLine(std::string_view words) {
    if (goodLines_ != nullptr) goodLines_->append(words) += '\n';
  }

  std::string takeHeader(std::string_view group) {
    if (std::string fault = group_name_fault(group); !fault.empty()) return fault;
    const auto isNamed = [&](const RawSection& section) { return section.group == group; };
    auto found = std::find_if(sections_.begin(), sections_.end(), isNamed);
    if (found == sections_.end()) {
      if (sections_.size() >= BlockList::kMostGroups) return kTooManyGroupsFault;
      found = sections_.insert(sections_.end(), {std::string(group), ""});
    }
    current_ = static_cast<size_t>(found - sections_.begin());
    return "";
  }

  std::string takeSetting(std::string_view key, std::string_view value) {
    if (key != kSuspendableKey) return "this list cannot set it: the machine's list has the settings of the group";
    if (list_.kind != ListKind::DropIn) return "only a list of the administrator has this setting: remove the line";
    if (trimmed(value) != "yes") return "write suspendable=yes, or remove the line";
    list_.isSuspendable = true;
    return "";
  }

  std::string takeSite() {
    if (site_.until) return "this list cannot suspend: remove \"until=\"";
    sections_[current_].names += name_of(site_) += '\n';
    return "";
  }

  std::string* const goodLines_;
  ReadOnlyList list_;
  ListedSite site_;
  std::deque<RawSection> sections_{{std::string(kDefaultGroupName), ""}};
  size_t current_ = 0;
  bool isInBadGroup_ = false;
};

}  // namespace

ReadOnlyList ReadOnlyList::parse(std::string_view text, ListKind kind, std::string* goodLines) {
  Parser parser(kind, goodLines);
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view words = trimmed(without_comment(text.substr(0, end)));
    if (!words.empty()) parser.take(number, words);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parser.result();
}

size_t ReadOnlyList::size() const {
  size_t size = 0;
  for (const Section& section : sections) size += section.names.size();
  return size;
}

size_t ReadOnlyList::blockingSize() const {
  size_t size = 0;
  for (const Section& section : sections) size += count_blocking(section.names);
  return size;
}

bool ReadOnlyList::isInForce(const Section& section, const GroupsInForce& groups) const {
  const auto group = groups.find(section.group);
  return rank() == Rank::Fixed || group == groups.end() || group->second;
}

bool is_list_name(std::string_view name, ListKind kind) {
  if (!name.ends_with(kEnding) || name.starts_with('.')) return false;
  if (kind == ListKind::DropIn) return true;
  name.remove_suffix(kEnding.size());
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
  });
}

}  // namespace orvane
