#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace orvane {

// A moment of the wall clock, in whole seconds, UTC.
using Moment = std::chrono::sys_seconds;

// One site that the machine blocks.
struct BlockedSite {
  std::string host;             // in the form of normalize_hostname()
  bool usualNames = true;       // www.HOST and m.HOST are blocked, too
  std::optional<Moment> until;  // not blocked before this moment
  bool isSuspended(Moment now) const { return until && now < *until; }
  bool operator==(const BlockedSite&) const = default;
};

// The site that a host name belongs to: the name without a leading "www." or "m.", unless nothing with a dot would be
// left. A part of `host`.
std::string_view site_of(std::string_view host);

// The names under which a site is blocked, its own first.
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
  const std::vector<BadLine>& badLines() const { return badLines_; }

  // The site with that very name, else the one of whose usual names it is one; null where there is none. Valid until
  // the next change.
  const BlockedSite* find(std::string_view host) const;

  // Adds a site, or changes the one with that name to this. False when nothing is new.
  bool put(const BlockedSite& site);
  // Takes the site with that very name away. False when there is none.
  bool remove(std::string_view host);

 private:
  struct Line {
    std::string text;                 // as it stands in the file, without its end
    std::optional<BlockedSite> site;  // none for a comment, a blank or a bad line
  };
  std::vector<Line> lines_;
  std::vector<BadLine> badLines_;
  std::unordered_map<std::string, size_t> places_;  // a site's name, and the line that counts
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
