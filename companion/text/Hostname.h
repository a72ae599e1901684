#pragma once

#include <string>
#include <string_view>

namespace orvane {

// Converts a host name to the form that browsers send: lower case, international labels as A-labels (UTS #46,
// non-transitional, with the system library's tables), no trailing dot. The extension needs this form, because it
// compares names byte for byte. A label has at most 63 letters, digits, hyphens and underscores; a name has at most 253
// characters (RFC 1035, section 2.3.4).
//
// Returns true and sets `name`, or returns false and sets `fault` to what is wrong and what to do, as in "it has a
// path: give the host name alone". IP addresses are refused: a browser that connects to an address sends no host name.
//
// The function writes into the memory that `name` already has, so `given` must not be a view of `name`.
bool normalize_hostname(std::string_view given, std::string& name, std::string& fault);

// Whether the text is an IPv6 address: alone, in brackets, or in brackets with a port. It may have a zone or the length
// of a prefix. normalize_hostname() recognises IPv4 addresses by their last label.
bool is_ip_address(std::string_view text);
inline constexpr const char* kAddressFault = "it is an IP address: only host names can be blocked";

// The host of a text that people paste as a host: a URL, or a host with a port or a path, as in
// "https://example.com/a", "example.com:443" or "example.com/a". For any other text, such as a URL without a host, the
// text itself. A view into `given`.
std::string_view host_in(std::string_view given);

// The port in such a text, which host_in() leaves out: "8443" in "https://example.com:8443/a". Empty if there is none,
// or if the host is an IPv6 address, because host_in() leaves such a port in place. A view into `given`.
std::string_view port_in(std::string_view given);

// Converts the international labels of a name to Unicode. The name must have the form of normalize_hostname(). Empty if
// unicode_label() (Idna.h) converts none of its labels.
std::string unicode_hostname(std::string_view name);

// For people: the name, or for an international name both forms, as in "b\u00fccher.example (xn--bcher-kva.example)".
std::string shown_hostname(const std::string& name);

}  // namespace orvane
