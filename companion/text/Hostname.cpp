#include "companion/text/Hostname.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <optional>

#include "companion/text/Idna.h"
#include "companion/text/Input.h"

namespace orvane {
namespace {

constexpr size_t kLongestLabel = 63;
constexpr size_t kLongestName = 253;
constexpr std::string_view kALabelPrefix = "xn--";

// What each byte of a given name becomes in the converted name: letters become lower case. 0 for a byte that is not
// allowed or not ASCII.
constexpr std::array<char, 256> kForms = [] {
  std::array<char, 256> forms{};
  for (char c = 'a'; c <= 'z'; ++c) forms[c] = forms[c - 'a' + 'A'] = c;
  for (char c = '0'; c <= '9'; ++c) forms[c] = c;
  for (char c : {'-', '_', '.'}) forms[c] = c;
  return forms;
}();

char form_of(char c) { return kForms[static_cast<unsigned char>(c)]; }
bool is_ascii(char c) { return static_cast<unsigned char>(c) < 0x80; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_hexadecimal(char c) { return is_digit(c) || (c >= 'a' && c <= 'f'); }

std::string forbidden_character_fault(std::string_view given, char c) {
  if (given.find("://") != std::string_view::npos)
    return host_in(given) == given ? "it is an address without a host: give a host name"
                                   : "it is a URL: give the host name alone: " + in_quotes(host_in(given));
  if (is_ip_address(given)) return kAddressFault;
  switch (c) {
    case ':':
      return "it has a port or a scheme: give the host name alone";
    case '/':
    case '?':
    case '#':
    case '\\':
      return "it has a path: give the host name alone";
    case '@':
      return "it has a user name: give the host name alone";
    case '*':
      return "it is a wildcard: give the name without it";
    case ' ':
    case '\t':
      return "it has a space: give one name at a time";
    default:
      return "it has a character that host names cannot have: use letters, digits, hyphens and dots";
  }
}

std::string international_fault(const ALabel& label) {
  switch (label.status) {
    case ALabel::Status::NotUTF8:
      return "it is not UTF-8: save the text as UTF-8";
    case ALabel::Status::TooLong:
      return "it has a label of more than 63 characters: shorten it";
    case ALabel::Status::OutOfMemory:
      return "out of memory: try fewer names";
    default:
      return "it is not a valid international name (" + label.reason + "): correct it, or give its A-label (xn--...)";
  }
}

// The length in bytes of the dot that the text starts with: a full stop, or a character that UTS #46 maps to a full
// stop. 0 if the text does not start with a dot.
size_t dot_length(std::string_view text) {
  if (text.front() == '.') return 1;
  for (std::string_view dot : {"\u3002", "\uff0e", "\uff61"}) {
    if (text.substr(0, dot.size()) == dot) return dot.size();
  }
  return 0;
}

// Refuses a label that has the prefix of A-labels but cannot be decoded, or that becomes another label when the decoded
// text is encoded again. A label that IDNA forbids but UTS #46 allows is accepted, because browsers accept it
// (xn--i-7iq, a heart).
bool accept_a_label(std::string_view label, std::string& fault) {
  if (label.substr(0, kALabelPrefix.size()) != kALabelPrefix) return true;
  ALabel found = look_up_label(std::string(label));
  if (found.status == ALabel::Status::Forbidden) return true;
  if (found.status == ALabel::Status::Found && found.text == label) return true;
  if (found.status == ALabel::Status::Found) found = {ALabel::Status::Invalid, "", "its letters have another A-label"};
  fault = international_fault(found);
  return false;
}

// Appends the label to `name`, in the form in which browsers send it.
bool append_label(const std::string& label, std::string& name, std::string& fault) {
  size_t start = name.size();
  if (std::all_of(label.begin(), label.end(), is_ascii)) {
    for (char c : label) name += form_of(c);
    return accept_a_label(std::string_view(name).substr(start), fault);
  }
  ALabel found = look_up_label(label);
  if (found.status != ALabel::Status::Found) {
    fault = international_fault(found);
    return false;
  }
  // The mapping of UTS #46 may have produced a forbidden character, a dot, or an empty label.
  for (char c : found.text) {
    if (form_of(c) == 0 || c == '.') {
      fault = forbidden_character_fault(found.text, c);
      return false;
    }
    name += form_of(c);
  }
  if (found.text.empty()) fault = "it has an empty label: remove the extra dot";
  return !found.text.empty();
}

// Converts label by label, because a library that gets the whole name applies IDNA's hyphen rules to all-ASCII labels,
// too. Browsers do not apply these rules to all-ASCII labels: they send "r3---sn.xn--bcher-kva.example".
bool append_international(std::string_view given, std::string& name, std::string& fault) {
  for (size_t at = 0; at <= given.size();) {
    size_t end = at;
    while (end < given.size() && dot_length(given.substr(end)) == 0) ++end;
    if (!append_label(std::string(given.substr(at, end - at)), name, fault)) return false;
    if (end == given.size()) break;
    name += '.';
    at = end + dot_length(given.substr(end));
  }
  return true;
}

// Browsers treat a host whose last label is a decimal, octal or hexadecimal number as an IPv4 address (WHATWG URL
// Standard, "ends in a number").
bool ends_in_number(std::string_view name) {
  std::string_view last = name.substr(name.rfind('.') + 1);
  if (last.substr(0, 2) == "0x") return std::all_of(last.begin() + 2, last.end(), is_hexadecimal);
  return std::all_of(last.begin(), last.end(), is_digit);
}

// Checks the converted name as a whole. `isAscii`: whether the given name was ASCII. If it was, this function also
// checks the A-labels; otherwise append_label() has checked them.
bool accept_shape(std::string_view name, bool isAscii, std::string& fault) {
  if (name.empty()) {
    fault = "it is empty: give a host name";
    return false;
  }
  for (size_t at = 0; at <= name.size();) {
    size_t end = std::min(name.find('.', at), name.size());
    std::string_view label = name.substr(at, end - at);
    if (label.empty() || label.size() > kLongestLabel) {
      fault = label.empty() ? "it has an empty label: remove the extra dot"
                            : "it has a label of more than 63 characters: shorten it";
      return false;
    }
    if (isAscii && !accept_a_label(label, fault)) return false;
    at = end + 1;
  }
  if (name.size() > kLongestName) {
    fault = "it has more than 253 characters: shorten it";
    return false;
  }
  if (ends_in_number(name)) {
    fault = "it ends in a number, as only IP addresses do: only host names can be blocked";
    return false;
  }
  return true;
}

// The length of the port with its colon. 0 if there is no port, or if the host is an IPv6 address, which is refused
// later, with or without a port.
size_t port_length(std::string_view authority) {
  const size_t colon = authority.find(':');
  const bool isAddress = authority.starts_with('[') || authority.rfind(':') != colon;
  return colon == std::string_view::npos || isAddress ? 0 : authority.size() - colon;
}

// The host and port of a URL, or of a host with a port or a path. Nothing for any other text, such as
// "https:/a.example", "https:a.example/b" and "https//a.example", which lack slashes or a colon, or "file:///a", which
// has no host.
std::optional<std::string_view> authority_in(std::string_view given) {
  const size_t scheme = given.find("://");
  const bool isURL = scheme < given.find_first_of("/?#\\");
  std::string_view authority = given;
  if (isURL) authority.remove_prefix(scheme + 3);
  const size_t end = authority.find_first_of("/?#\\");
  authority = authority.substr(0, end);
  authority.remove_prefix(authority.rfind('@') + 1);  // npos + 1 is 0: no user name
  const auto isAuthority = [&](std::string_view word) {
    const auto isSame = [](char left, char right) { return form_of(left) == right; };
    return std::equal(authority.begin(), authority.end(), word.begin(), word.end(), isSame);
  };
  if (!isURL && (isAuthority("http") || isAuthority("https"))) return std::nullopt;
  const std::string_view port = authority.substr(authority.size() - port_length(authority));
  const bool isNumber = port.size() > 1 && std::all_of(port.begin() + 1, port.end(), is_digit);
  if (!isURL && !isNumber && (!port.empty() || end == std::string_view::npos)) return std::nullopt;
  return authority.empty() ? std::nullopt : std::optional(authority);
}

}  // namespace

bool is_ip_address(std::string_view text) {
  if (text.starts_with('[')) {
    const size_t end = std::min(text.find(']'), text.size());
    const std::string_view port = text.substr(std::min(end + 1, text.size()));
    if (!port.empty() && (port.front() != ':' || !std::all_of(port.begin() + 1, port.end(), is_digit))) return false;
    text = text.substr(1, end - 1);
  }
  const std::string address(text.substr(0, text.find_first_of("%/")));  // "fe80::1%eth0", "2001:db8::/32"
  in6_addr ignored{};
  return inet_pton(AF_INET6, address.c_str(), &ignored) == 1;
}

std::string_view host_in(std::string_view given) {
  const auto authority = authority_in(given);
  return authority ? authority->substr(0, authority->size() - port_length(*authority)) : given;
}

std::string_view port_in(std::string_view given) {
  const std::string_view authority = authority_in(given).value_or("");
  const size_t length = port_length(authority);
  return length == 0 ? std::string_view() : authority.substr(authority.size() - length + 1);
}

std::string unicode_hostname(std::string_view name) {
  std::string result;
  bool isInternational = false;
  for (size_t at = 0; at <= name.size();) {
    const size_t end = std::min(name.find('.', at), name.size());
    const std::string label(name.substr(at, end - at));
    const std::string unicode = label.starts_with(kALabelPrefix) ? unicode_label(label) : "";
    isInternational = isInternational || !unicode.empty();
    result += (at == 0 ? "" : ".") + (unicode.empty() ? label : unicode);
    at = end + 1;
  }
  return isInternational ? result : "";
}

std::string shown_hostname(const std::string& name) {
  const std::string unicode = unicode_hostname(name);
  return unicode.empty() ? name : unicode + " (" + name + ')';
}

bool normalize_hostname(std::string_view given, std::string& name, std::string& fault) {
  name.clear();
  name.reserve(given.size());
  bool isAscii = true;
  for (char c : given) {
    char form = form_of(c);
    if (form != 0) {
      name += form;
    } else if (is_ascii(c)) {
      fault = forbidden_character_fault(given, c);
      return false;
    } else {
      isAscii = false;
    }
  }
  if (!isAscii) {
    name.clear();
    if (!append_international(given, name, fault)) return false;
  }
  if (!name.empty() && name.back() == '.') name.pop_back();
  return accept_shape(name, isAscii, fault);
}

}  // namespace orvane
