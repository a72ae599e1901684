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

// A site on the machine's list.
struct BlockedSite {
  std::string host;             // in the form of normalize_hostname()
  bool usualNames = true;       // also block www.HOST and m.HOST
  std::optional<Moment> until;  // suspended (not blocked) before this moment
  bool isSuspended(Moment now) const { return until && now < *until; }
  bool operator==(const BlockedSite&) const = default;
};

// The name under which a host is put on the list: without a leading "www." or "m.". The name stays whole if the rest
// has no dot ("www.com") or itself starts with one of these prefixes ("www.m.example.com"). A view into `host`.
std::string_view site_of(std::string_view host);

// All names to block for a site, its own first. A host without a dot has no usual names. A usual name that would be too
// long for a host name is left out.
std::vector<std::string> names_of(const BlockedSite& site);

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

  // The sites, in the order of their lines. If a site has several lines, the last one counts.
  std::vector<BlockedSite> sites() const;
  void forEachSite(const std::function<void(const BlockedSite&)>& visit) const;  // the same sites, not copied
  size_t size() const { return lineByHost_.size(); }                             // the number of sites
  const std::vector<BadLine>& badLines() const { return badLines_; }

  // The site with exactly this name, otherwise the site that has it as a usual name, otherwise null. Valid until the
  // next change of the list.
  const BlockedSite* find(std::string_view host) const;
  // Only the site that has this name as a usual name; null if there is none.
  const BlockedSite* findByUsualName(std::string_view host) const;

  // Adds a site at the end, or replaces the site with the same name and keeps the comment on that site's line. A site
  // with usual names is stored under site_of(host). Returns whether anything changed.
  bool put(BlockedSite site);
  // Removes the site with exactly this name, all its lines included. Returns whether there was one.
  bool remove(std::string_view host);

 private:
  static constexpr uint32_t kNone = UINT32_MAX;
  struct Line {
    // As in the file, without the line end. Empty, to save memory, if the line equals line_of(site).
    std::string text;
    std::optional<BlockedSite> site;  // none for a comment, a blank line or a bad line
    uint32_t earlier = kNone;         // the previous line with the same site
    bool isSuperseded = false;        // a later line has the same site
    bool isRemoved = false;
  };
  // Maps the keyed hash of a site's name to the site's line. The key is not the name itself, because second copies of
  // the names would take most of the memory.
  using LineByHost = std::unordered_multimap<size_t, uint32_t>;

  void append(Line line);
  LineByHost::const_iterator locate(std::string_view host) const;  // end() if the host is not on the list

  std::vector<Line> lines_;
  std::vector<BadLine> badLines_;
  LineByHost lineByHost_;
};

// The names that the extension must hold at a given moment.
struct HeldNames {
  std::vector<std::string> names;                         // sorted, each once
  std::vector<std::pair<std::string, Moment>> suspended;  // sorted; names left out of `names` until that moment
  std::optional<Moment> nextChange;                       // when the first of these suspensions ends
};
// A name may belong to two sites: to one as its own name, and to another as a usual name. It is held unless both sites
// are suspended.
HeldNames held_names(const BlockList& list, Moment now);

}  // namespace orvane
