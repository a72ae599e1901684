#pragma once

#include <string>
#include <string_view>

#include "companion/list/BlockList.h"

namespace orvane {

// The line of a site, as orvane-list(5) describes it: HOST [only | allowed] [until=TIME].
std::string line_of(const ListedSite& site);

// Reads a line that is not blank and has no comment. `scope`: the scope of a line that has neither "only" nor
// "allowed"; Subdomains for the machine's list. Returns false for an invalid line and sets `fault` to what is wrong and
// what to do.
bool read_line(std::string_view line, Scope scope, ListedSite& site, std::string& fault);

// Reads the host of a line. With the scope Subdomains, the site's host is site_of(host). But if `host` begins with a
// dot, only this dot is removed: ".www.example.com" gives the site www.example.com.
bool read_site(std::string_view host, Scope scope, ListedSite& site, std::string& fault);

// If the host cannot have the site's scope: what is wrong and what to do. Otherwise empty. A public suffix can have
// only the scope ExactName, because the names below it belong to unrelated people. The machine's list may nevertheless
// have a line that names a public suffix without "only", for example a line that was written by hand. Such a line
// blocks only its host.
std::string scope_fault(const ListedSite& site);

// Calls normalize_hostname(), but refuses a text that is too long: the time to convert an international name grows with
// its length.
bool read_hostname(std::string_view given, std::string& name, std::string& fault);

// Removes the first word and the white space after it from a text that starts with a word. Returns the word.
std::string_view take_word(std::string_view& text);

}  // namespace orvane
