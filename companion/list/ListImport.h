#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/list/BlockList.h"

namespace orvane {

// The sites that read_import() finds in a block list from another source. Each line of the list has one of these forms:
//
//   form                            meaning                                              scope by default
//   example.com                     one name, or any line of orvane-list(5)              Subdomains
//   0.0.0.0 a.example b.example     hosts(5), with an unspecified or loopback address    ExactName: these lists name
//                                                                                        each host
//   ||example.com^                  a filter list's rule for a whole site                Subdomains
//   @@||example.com^                a filter list's exception for a whole site           Exception
//
// A comment starts with "#", or with "!" at the start of a line. A line in brackets is a filter list's title and counts
// as a comment.
struct ImportedSites {
  // Each site once, in the order in which the sites first occur. If several lines name a site, the site gets the
  // greatest of their scopes, and the last of these lines decides whether the site is suspended.
  std::deque<ListedSite> sites;
  size_t lines = 0;
  size_t duplicates = 0;  // names that occurred earlier in this text
  size_t skipped = 0;     // names like localhost, which every hosts file has
  size_t rejected = 0;    // invalid lines; in a line of hosts(5), each invalid name
};

// Called for each rejected line or name, with the line's number (counted from 1), the text, and a message that says
// what is wrong and what to do.
using ImportRejection = std::function<void(size_t line, std::string_view text, const std::string& fault)>;
// Called from time to time with the number of bytes and the number of lines that were read so far.
using ImportProgress = std::function<void(size_t bytes, size_t lines)>;

// Reads a block list. `scope`, if given, replaces the default scope of each form except that of exceptions (see
// ImportedSites). Throws InputError for compressed data and for UTF-16.
ImportedSites read_import(std::string_view text, std::optional<Scope> scope, const ImportRejection& rejected,
                          const ImportProgress& progress);

// What an import did to one host: the host's site before and after the import, of which at most one is missing.
struct SiteEdit {
  std::optional<ListedSite> before, after;
};

struct ImportCounts {
  size_t added = 0;
  size_t changed = 0;
  size_t unchanged = 0;  // already on the list in the same form
  size_t removed = 0;    // only when the list is replaced
  std::vector<SiteEdit> edits;
};

// Adds the sites to the default group, or replaces this group's sites. A site that is already on the list keeps its
// suspension unless the import gives another suspension. If the list is not replaced, such a site also keeps its scope
// if this scope is greater than the imported one.
ImportCounts put_imported(BlockList& list, const ImportedSites& imported, bool replace);

// The text that records an import, for import_record_edits(). Each edit has up to two lines: "- " and the line of the
// site before the import, and "+ " and the line of the site after it.
std::string import_record(const std::vector<SiteEdit>& edits);

// Reads the text of import_record(). Ignores invalid lines.
std::vector<SiteEdit> import_record_edits(std::string_view text);

struct UndoCounts {
  size_t removed = 0;
  size_t restored = 0;
  size_t changedSince = 0;  // left alone, because the user has changed the site since the import
};

// Takes the edits of an import back. A site counts as changed since the import if it has been removed or added, or has
// another scope, but not if it has only been suspended or resumed.
UndoCounts take_back(BlockList& list, const std::vector<SiteEdit>& edits);

}  // namespace orvane
