#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "companion/list/BlockList.h"

namespace orvane {

// What lists of others hold, line by line; each line may be of another form:
//
//   example.com                     one name a line, or what a line of the machine's list says besides ("only",
//                                   "until=TIME"); with its usual names
//   0.0.0.0 a.example b.example     hosts(5), with an address that leads nowhere or to this machine; the very names, as
//                                   such lists name all that they mean
//   ||example.com^                  a rule of a filter list for a whole site; with its usual names
//
// Comments begin with "#", and with "!" at the start of a line; a filter list's title stands in brackets.
struct ImportedSites {
  // Each once, at its first place: with its usual names where one line has them, suspended where the last line says so.
  std::deque<BlockedSite> sites;
  size_t lines = 0;
  size_t duplicates = 0;   // names that were there before, in this text
  size_t skipped = 0;      // names like localhost, which every hosts file has and nobody means
  size_t rejected = 0;     // lines or, in hosts(5), names
  size_t filterRules = 0;  // those of the third form: they would cover subdomains
};

// Called for each thing that is rejected: the line's number, what it is, what is wrong and what to do.
using ImportRejection = std::function<void(size_t line, std::string_view text, const std::string& fault)>;
// Called now and then: bytes read and lines so far.
using ImportProgress = std::function<void(size_t bytes, size_t lines)>;

// Reads such a text. `usualNames`: whether sites get their usual names; as above where it is not given. Throws
// InputError for a text that is none: compressed, or in UTF-16.
ImportedSites read_import(std::string_view text, std::optional<bool> usualNames, const ImportRejection& rejected,
                          const ImportProgress& progress);

struct ImportCounts {
  size_t added = 0;
  size_t changed = 0;
  size_t unchanged = 0;  // as they were imported
  size_t removed = 0;    // to make room
};

// Puts the sites on the list, or in place of all that is on it. A site that is there keeps its suspension, unless the
// import says when it ends, and its usual names, unless all is replaced.
ImportCounts put_imported(BlockList& list, const ImportedSites& imported, bool replace);

}  // namespace orvane
