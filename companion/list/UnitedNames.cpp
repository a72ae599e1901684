#include "companion/list/UnitedNames.h"

#include <algorithm>
#include <array>
#include <queue>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "platform/KeyedHash.h"
#include "platform/names/Subdomains.h"

namespace orvane {
namespace {

using Hosts = std::unordered_set<std::string_view, KeyedHash>;

constexpr std::array kRanks{Rank::Open, Rank::Own, Rank::Fixed};

bool is_exception(std::string_view name) { return name.starts_with(kExceptionMark); }

// Calls visit(host) for the host and each domain above it, until visit() returns true. Returns whether it did.
template <class Visit>
bool any_from(std::string_view host, Visit visit) {
  for (;; host.remove_prefix(host.find('.') + 1)) {
    if (visit(host)) return true;
    if (host.find('.') == std::string_view::npos) return false;
  }
}

// Whether an exception or a suspension for `covering`, which is the host or a domain above it, concerns the host. If
// `covering` is a public suffix or has no dot, it concerns only this name (covering_hosts()).
bool concerns(std::string_view covering, std::string_view host) {
  return covering == host || (covering.find('.') != std::string_view::npos && !is_public_suffix(covering));
}

// Finds the names that exceptions and suspensions keep from the extension (unite()).
class Exemptions {
 public:
  Exemptions(std::span<const RankedNames> lists, const std::vector<std::pair<std::string, Moment>>& suspended)
      : lists_(lists) {
    for (const auto& [name, until] : suspended) suspended_.insert(name);
    for (const RankedNames& list : lists) {
      if (list.rank == Rank::Fixed) continue;
      for (std::string_view name : *list.names) {
        if (!is_exception(name)) break;  // exceptions come first, because '!' is less than a name's other characters
        ranks_[host_of(name)] |= bit(list.rank);
      }
    }
    if (!ranks_.empty()) findLeftOut();
  }

  // Whether the extension must hold a name that the lists of these ranks have; one bit for each rank.
  bool isHeld(std::string_view name, unsigned ranks) const {
    const std::string_view host = host_of(name);
    return std::any_of(kRanks.begin(), kRanks.end(), [&](Rank rank) {
      if ((ranks & bit(rank)) == 0) return false;
      if (is_exception(name)) return !leftOut(rank).contains(host);
      return !(rank < Rank::Own && isSuspended(name, host)) && !isExempt(host, rank);
    });
  }

  static unsigned bit(Rank rank) { return 1U << static_cast<unsigned>(rank); }

 private:
  const Hosts& leftOut(Rank rank) const { return leftOut_[static_cast<size_t>(rank)]; }
  // The ranks above `rank`.
  static unsigned above(Rank rank) { return ~(2 * bit(rank) - 1); }

  // Whether one of the exceptions that are left out is of this rank or a higher one, and concerns the host.
  bool isExempt(std::string_view host, Rank rank) const {
    return std::any_of(kRanks.begin(), kRanks.end(), [&](Rank other) {
      const Hosts& hosts = leftOut(other);
      return other >= rank && !hosts.empty() &&
             any_from(host, [&](std::string_view each) { return hosts.contains(each) && concerns(each, host); });
    });
  }

  bool isSuspended(std::string_view name, std::string_view host) const {
    if (suspended_.empty()) return false;
    std::string marked;
    return suspended_.contains(name) || any_from(host, [&](std::string_view each) {
             marked.assign(kSubdomainsMark).append(each);
             return suspended_.contains(marked) && concerns(each, host);
           });
  }

  void findLeftOut() {
    for (const RankedNames& list : lists_) {
      if (list.rank == Rank::Open) continue;
      for (std::string_view name : *list.names) {
        if (is_exception(name)) continue;
        const std::string_view host = host_of(name);
        any_from(host, [&](std::string_view each) {
          const auto found = ranks_.find(each);
          if (found != ranks_.end() && concerns(each, host)) leaveOut(*found, list.rank);
          return false;
        });
      }
    }
    for (const auto& exception : ranks_) {
      for (std::string_view covering : covering_hosts(exception.first)) {
        const std::string name = std::string(kSubdomainsMark).append(covering);
        for (const RankedNames& list : lists_) {
          if (list.rank != Rank::Open && list.names->contains(name)) leaveOut(exception, list.rank);
        }
      }
    }
  }

  // `exception`: an exception that would unblock a host that a name of the rank `of` covers.
  void leaveOut(const std::pair<const std::string_view, unsigned>& exception, Rank of) {
    for (Rank rank : kRanks) {
      if ((exception.second & bit(rank)) != 0 && (above(rank) & bit(of)) != 0)
        leftOut_[static_cast<size_t>(rank)].insert(exception.first);
    }
  }

  std::span<const RankedNames> lists_;
  std::unordered_map<std::string_view, unsigned, KeyedHash> ranks_;  // of the exceptions, by host
  std::array<Hosts, kRanks.size()> leftOut_;                         // hosts of exceptions that are left out, by rank
  Hosts suspended_;                                                  // names of the machine's list
};

}  // namespace

std::vector<std::string> unite(std::span<const RankedNames> lists,
                               const std::vector<std::pair<std::string, Moment>>& suspended) {
  const Exemptions exemptions(lists, suspended);
  struct Source {
    std::string_view name;
    size_t list;
    bool operator<(const Source& other) const { return name > other.name; }  // the queue's top is the first name
  };
  std::priority_queue<Source> sources;
  std::vector<PackedNames::Iterator> positions;
  size_t most = 0;
  for (size_t i = 0; i < lists.size(); ++i) {
    positions.push_back(lists[i].names->begin());
    if (lists[i].names->size() > 0) sources.push({*positions[i], i});
    most = std::max(most, lists[i].names->size());
  }
  std::vector<std::string> names;
  names.reserve(most);
  while (!sources.empty()) {
    const std::string_view name = sources.top().name;
    unsigned ranks = 0;
    while (!sources.empty() && sources.top().name == name) {
      const size_t i = sources.top().list;
      sources.pop();
      ranks |= Exemptions::bit(lists[i].rank);
      if (++positions[i] != lists[i].names->end()) sources.push({*positions[i], i});
    }
    if (exemptions.isHeld(name, ranks)) names.emplace_back(name);
  }
  return names;
}

}  // namespace orvane
