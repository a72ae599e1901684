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

// One site that the machine blocks.
struct BlockedSite {
  std::string host;             // in the form of normalize_hostname()
  bool usualNames = true;       // www.HOST and m.HOST are blocked, too
  std::optional<Moment> until;  // not blocked before this moment
  bool isSuspended(Moment now) const { return until && now < *until; }
  bool operator==(const BlockedSite&) const = default;
};

// The site that a host name belongs to: the name without a leading "www." or "m.", unless nothing with a dot would be
// left, or another such name ("www.m.example.com" is a site of its own). A part of `host`.
std::string_view site_of(std::string_view host);

// The names under which a site is blocked, its own first. A host without a dot has no usual names, and those too long
// to be names are left out.
std::vector<std::string> names_of(const BlockedSite& site);

// The list of the machine, as orvane-list(5) describes its text. What orvanectl does not understand or need stays as it
// stands: comments, blank lines, and lines that it refuses.
class BlockList {
 public:
  struct BadLine {
    size_t line;  // counted from 1
    std::string text;
    std::string fault;  // what is wrong and what to do
  };

  static BlockList parse(std::string_view text);
  std::string text() const;

  // In the order of the lines. A site that has two lines is what the later one says.
  std::vector<BlockedSite> sites() const;
  void forEachSite(const std::function<void(const BlockedSite&)>& take) const;  // the same, without a copy
  size_t size() const { return places_.size(); }                                // how many sites
  const std::vector<BadLine>& badLines() const { return badLines_; }

  // The site with that very name, else the one of whose usual names it is one; null where there is none. Valid until
  // the next change.
  const BlockedSite* find(std::string_view host) const;
  const BlockedSite* findByUsualName(std::string_view host) const;  // the latter alone

  // Adds a site at the end, or changes the one with that name to this; the comment on its line stays. A site with usual
  // names is put under site_of() its name. False when nothing is new.
  bool put(BlockedSite site);
  // Takes the site with that very name away. False when there is none.
  bool remove(std::string_view host);

 private:
  static constexpr uint32_t kNone = UINT32_MAX;
  struct Line {
    std::string text;                 // as it stands in the file, without its end; empty for line_of(site) alone
    std::optional<BlockedSite> site;  // none for a comment, a blank or a bad line
    uint32_t earlier = kNone;         // the line before that has the same site
    bool superseded = false;          // by a later one
    bool gone = false;
  };
  // The line that counts for a site, by the hash of its name: names beside the lines' own would take most of the
  // memory.
  using Places = std::unordered_multimap<size_t, uint32_t>;

  void append(Line line);
  Places::const_iterator placeOf(std::string_view host) const;  // the end where there is none

  std::vector<Line> lines_;
  std::vector<BadLine> badLines_;
  Places places_;
};

// What the extension is to hold at a moment.
struct HeldNames {
  std::vector<std::string> names;                         // sorted, each once
  std::vector<std::pair<std::string, Moment>> suspended;  // sorted; names that are left out until then
  std::optional<Moment> nextChange;                       // when the first of these comes back
};
// A name that one site holds and another has suspended is held.
HeldNames held_names(const BlockList& list, Moment now);

}  // namespace orvane
