#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "companion/list/BlockList.h"

namespace orvane {

// The sites that read_import() finds in a block list from another source. Each line of the list has one of these forms:
//
//   form                            meaning                                              scope by default
//   example.com                     one name, or any line of orvane-list(5)              Subdomains
//   0.0.0.0 a.example b.example     hosts(5), with 0.0.0.0, 127.0.0.1, :: or ::1         ExactName: these lists name
//                                                                                        each host
//   ||example.com^                  a filter list's rule for a whole site                Subdomains
//   @@||example.com^                a filter list's exception for a whole site           Exception
//
// A comment starts with "#", or with "!" at the start of a line. A line in brackets is the header of a group, as in
// orvane-list(5), or a filter list's title, which counts as a comment. Most rules of a filter list are not about a
// whole host: they have a path, a wildcard, a regular expression or an option, or hide parts of pages. These rules are
// only counted, if the line shows that it is a rule: "example.com/path" does not. Any other line is rejected. That does
// not depend on the lines before it, with two exceptions. A word without a dot, such as "adserver", is a name, but in a
// filter list a rule for parts of addresses. And all lines below the bad header of a group are rejected.
struct ImportedSites {
  // Each site of a group once, in the order in which the sites first occur. If several lines name a site, the site gets
  // the greatest of their scopes, and the last of these lines decides whether the site is suspended.
  std::deque<ListedSite> sites;
  // The groups that the text has, with the settings that it gives them. ListedSite::group is a position in this vector.
  // A text without a header and without sites has one group: ImportOptions::group, or the default group.
  std::vector<Group> groups;
  size_t lines = 0;
  size_t duplicates = 0;    // names that occurred earlier in this text
  size_t skipped = 0;       // names like localhost, which every hosts file has
  size_t partialRules = 0;  // a filter list's rules that are not about a whole host
  size_t rejected = 0;      // invalid lines; in a line of hosts(5), each invalid name
};

// Called for each rejected line or name, with the line's number (counted from 1), the text, and a message that says
// what is wrong and what to do.
using ImportRejection = std::function<void(size_t line, std::string_view text, const std::string& fault)>;
struct RejectedLine {
  size_t line;
  std::string text, fault;
};
// The errors that a command prints for the rejected lines of a text: one for each of the first kMostPrinted, then one
// with the number of the others. `lines` has at least the lines that are printed; `count` is the number of all rejected
// lines. `outcome`: what the command did with them, such as "not imported"; `source`: the name of the text.
inline constexpr size_t kMostPrinted = 20;
std::vector<std::string> rejection_texts(const std::string& outcome, const std::string& source,
                                         const std::vector<RejectedLine>& lines, size_t count);
// Called from time to time with the number of bytes and the number of lines that were read so far.
using ImportProgress = std::function<void(size_t bytes, size_t lines)>;

// A text may have this many lines. In a line of hosts(5), each name counts as one more line.
inline constexpr size_t kMostImportedLines = size_t{1} << 22;

struct ImportOptions {
  // Replaces the default scope of each form except that of exceptions (see ImportedSites).
  std::optional<Scope> scope;
  // The group of all sites. The headers and settings of the text then have no effect.
  std::optional<std::string> group;
  // How many different names the text may have.
  size_t mostNames = kMostImportedLines;
  // If this returns true for the host of a line as written, the line names this host: the host keeps its "www.", and
  // may be a public suffix.
  std::function<bool(const std::string& host)> isOnList{};
};

// Reads a block list. Throws InputError for compressed data and for UTF-16, and as soon as a limit is exceeded.
ImportedSites read_import(std::string_view text, const ImportOptions& options, const ImportRejection& rejected,
                          const ImportProgress& progress);

// Whether a name in lower case is one of those that hosts files have for the machine itself and its network, such as
// localhost. read_import() skips these names.
bool is_local_name(std::string_view name);

struct ImportCounts {
  size_t added = 0;
  size_t changed = 0;
  size_t unchanged = 0;  // already on the list in the same form
  size_t removed = 0;    // only when the list is replaced
  size_t groups = 0;     // groups that were added, or got settings
  // The groups that kept their own settings instead of the imported ones, because they had sites already.
  std::vector<std::string> unchangedGroups;
  std::set<std::string> weakenedGroups;  // in which sites were changed or removed
  std::set<GroupIndex> extendedGroups;   // in which sites were added or changed
  std::string record;                    // for read_import_record()
  bool hasChanges() const { return added + changed + removed + groups > 0; }
};

// Adds the sites to their groups, or replaces the sites of these groups. Other groups stay as they are. A site that is
// already in the group keeps its suspension unless the import gives another suspension. If the sites are not replaced,
// such a site also keeps its scope if this scope is greater than the imported one. Only groups that have no sites yet
// get the settings of the import: a list from elsewhere must not put a group out of force. Throws InputError if the
// list would have too many groups.
ImportCounts put_imported(BlockList& list, const ImportedSites& imported, bool replace);

// The sites that an import changed, and the groups of the imported text, before and after the import. In the text, each
// line of `before` follows "- ", and each line of `after` follows "+ ".
struct ImportRecord {
  BlockList before, after;
};
ImportRecord read_import_record(std::string_view text);

struct UndoCounts {
  size_t removed = 0;
  size_t restored = 0;
  size_t groups = 0;                     // groups that were removed, or got their old settings
  std::set<std::string> weakenedGroups;  // in which sites or settings were changed, or which lost sites or were removed
  size_t changedSince = 0;               // left alone, because the user has changed the site or group since the import
};

// Takes an import back. A site counts as changed since the import if it has been removed or added, or has another
// scope, but not if it has only been suspended or resumed. A group that the import added is removed if it has no sites
// any more.
UndoCounts take_back(BlockList& list, const ImportRecord& record);

}  // namespace orvane
