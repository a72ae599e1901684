#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "companion/list/BlockList.h"

namespace orvane {

// "example.com, with www.example.com and m.example.com"; a site without usual names is its name alone.
std::string site_text(const BlockedSite& site);

// {"host", "names", "usualNames", "suspended"}, and "until" where the site has one.
nlohmann::json site_json(const BlockedSite& site, Moment now);

// Where the sites go: a table with their number for a person, the lines of the list for a program, its names alone, or
// JSON. All on standard output, a large list without a copy of it.
void print_table(const BlockList& list, Moment now);
void print_lines(const BlockList& list);
void print_hosts(const BlockList& list);
void print_sites_json(const BlockList& list, Moment now);

// One line on standard error for each bad line of the list's file.
void report_bad_lines(const BlockList& list, const std::string& path);

}  // namespace orvane
