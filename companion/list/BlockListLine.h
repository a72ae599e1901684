#pragma once

#include <string>
#include <string_view>

#include "companion/list/BlockList.h"

namespace orvane {

// The line of a site, as orvane-list(5) describes it: HOST [only | allowed] [until=TIME].
std::string line_of(const ListedSite& site);

// Reads a line that is not blank and has no comment. `scope`: of a line without "only" and "allowed"; Subdomains for
// the machine's list. Returns false for an invalid line and sets `fault` to what is wrong and what to do.
bool read_line(std::string_view line, Scope scope, ListedSite& site, std::string& fault);

// Reads the host of a line. With the scope Subdomains, the site's host is site_of() the given host, unless the given
// host begins with a dot: ".www.example.com" is the site www.example.com.
bool read_site(std::string_view host, Scope scope, ListedSite& site, std::string& fault);

// What is wrong and what to do if the scope does not suit the host; empty if it does. Of a public suffix, only the
// exact name can be meant, because the names below it belong to unrelated people. A line of the machine's list may name
// one nevertheless, for the sake of old lists; its host alone is then blocked.
std::string scope_fault(const ListedSite& site);

// Calls normalize_hostname(), but refuses a text that is too long: the time to convert an international name grows with
// its length.
bool read_hostname(std::string_view given, std::string& name, std::string& fault);

// Removes the first word and the white space after it from a text that starts with a word. Returns the word.
std::string_view take_word(std::string_view& text);

}  // namespace orvane
