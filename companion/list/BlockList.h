#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "companion/text/TimeText.h"

namespace orvane {

// What a line of the list says about its host. The values are ordered: if an import names a host several times, the
// host gets the greatest of the values.
enum class Scope {
  ExactName,   // this host is blocked
  Subdomains,  // this host and all its subdomains are blocked
  Exception,   // this host and all its subdomains are allowed, even if other lines block them
};

// A site on the machine's list.
struct ListedSite {
  std::string host;  // in the form of normalize_hostname()
  Scope scope = Scope::Subdomains;
  std::optional<Moment> until;  // suspended (not blocked) before this moment; never set for an exception
  bool isSuspended(Moment now) const { return until && now < *until; }
  bool operator==(const ListedSite&) const = default;
};

// The name under which a host is put on the list: without a leading "www." or "m.". The name keeps this prefix if the
// rest has no dot ("www.com"), is a public suffix ("www.gov.uk"), or itself starts with one of the two prefixes
// ("www.m.example.com"). A view into `host`.
std::string_view site_of(std::string_view host);

// Whether the site's line covers subdomains, too. The line of a public suffix covers only its host, because the names
// below a public suffix belong to unrelated people (Subdomains.h).
bool has_subdomains(const ListedSite& site);

// The name that the extension must hold for a site: the host, with the mark of its scope (Subdomains.h).
std::string name_of(const ListedSite& site);

// The machine's list. orvane-list(5) describes its text. Comments, blank lines and invalid lines are kept unchanged.
// Not thread-safe.
class BlockList {
 public:
  struct BadLine {
    size_t line;        // counted from 1
    std::string text;   // without its comment, at most 200 bytes
    std::string fault;  // what is wrong and what to do
  };

  static BlockList parse(std::string_view text);
  std::string text() const;

  // The sites, in the order of their lines. If a host has several lines, only the last of them has an effect.
  std::vector<ListedSite> sites() const;
  void forEachSite(const std::function<void(const ListedSite&)>& visit) const;  // the same sites, not copied
  size_t size() const { return lineByHost_.size(); }                            // the number of sites
  const std::vector<BadLine>& badLines() const { return badLines_; }

  // The site with exactly this host; null if there is none. Valid until the next change of the list.
  const ListedSite* find(std::string_view host) const;

  // Adds a site at the end, or replaces the site with the same host and keeps the comment on that site's line. Returns
  // whether anything changed.
  bool put(ListedSite site);
  // Removes the site with exactly this host, all its lines included. Returns whether the list had the site.
  bool remove(std::string_view host);

 private:
  static constexpr uint32_t kNone = UINT32_MAX;
  struct Line {
    // As in the file, without the line end. Empty, to save memory, if the line equals line_of(site).
    std::string text;
    std::optional<ListedSite> site;  // none for a comment, a blank line or a bad line
    uint32_t earlier = kNone;        // the previous line with the same site
    bool isSuperseded = false;       // a later line has the same site
    bool isRemoved = false;
  };
  // Maps the keyed hash of a site's host to the index of the site's line. The map does not contain the hosts
  // themselves, because second copies of the hosts would take most of the memory.
  using LineByHost = std::unordered_multimap<size_t, uint32_t>;

  void append(Line line);
  LineByHost::const_iterator locate(std::string_view host) const;  // end() if the host is not on the list

  std::vector<Line> lines_;
  std::vector<BadLine> badLines_;
  LineByHost lineByHost_;
};

// The sites on the list that decide about a host. decide() looks on the list for the host itself, and then for the
// domains above it, because the extension asks its provider in this order. A null pointer means that there is no such
// site. Valid until the next change of the list.
struct Decision {
  const ListedSite* blocking = nullptr;   // blocks the host, unless there is an exception
  const ListedSite* suspended = nullptr;  // would block the host; of several, the one whose suspension ends first
  const ListedSite* exception = nullptr;  // lets the host pass, even if there is a `blocking` site
  bool isBlocked() const { return blocking != nullptr && exception == nullptr; }
};
Decision decide(const BlockList& list, std::string_view host, Moment now);

// The names that the extension must hold at a given moment.
struct HeldNames {
  std::vector<std::string> names;                         // sorted
  std::vector<std::pair<std::string, Moment>> suspended;  // sorted; each name is left out of `names` until its moment
  std::optional<Moment> nextChange;                       // when the first of these suspensions ends
};
HeldNames held_names(const BlockList& list, Moment now);

}  // namespace orvane
