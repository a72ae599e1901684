#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "companion/list/BlockList.h"

namespace orvane {

// Describes a site to people: "example.com and its subdomains", or the host alone for a site without subdomains.
std::string site_text(const ListedSite& site);

// A JSON object with the members "host", "scope" ("subdomains", "exact" or "exception") and "suspended". It also has
// "unicode" for an international name, and "until" if the site has a suspension, even one that has ended.
nlohmann::json site_json(const ListedSite& site, Moment now);

// Print all sites on standard output, one at a time, so that a large list needs no second copy in memory.
void print_table(const BlockList& list, Moment now);  // for people, with totals
void print_file(const BlockList& list);               // as the list's file, without comments
void print_hosts(const BlockList& list);              // one host per line, without the exceptions
void print_sites_json(const BlockList& list, Moment now);

// Prints one error for each malformed line of the list's file.
void report_bad_lines(const BlockList& list, const std::string& path);

}  // namespace orvane
