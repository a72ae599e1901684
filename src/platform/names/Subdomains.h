#pragma once

#include <string_view>
#include <vector>

#include "platform/names/PublicSuffixes.h"

namespace orvane {

// A name on the list that begins with a mark stands for a host and all its subdomains:
//
//   .example.com      example.com and all its subdomains are blocked
//   !.x.example.com   x.example.com and all its subdomains are allowed, even if other names on the list cover them
//
// The provider compares whole names, so the platform asks it about a flow several times: under the flow's own name, and
// under names that consist of a mark and one of the hosts that covering_hosts() returns.
inline constexpr std::string_view kSubdomainsMark = ".";
inline constexpr std::string_view kExceptionMark = "!.";

// The hosts whose marked names cover `host`: the host itself, then its parents up to its registrable domain, the name
// that somebody can register. For a.b.example.co.uk these are a.b.example.co.uk, b.example.co.uk and example.co.uk; not
// co.uk, because the names below a public suffix belong to unrelated people. A host without a registrable domain, such
// as a public suffix or a name without a dot, is covered only by itself. No name covers a literal address or a name
// that is too long for DNS. `host` must have the form that listed_form() gives; the results are views into it.
std::vector<std::string_view> covering_hosts(std::string_view host);

}  // namespace orvane
