#include "platform/names/Authority.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

namespace orvane {
namespace {

constexpr std::string_view kDigits = "0123456789", kHexDigits = "0123456789abcdefABCDEF";

bool consists_of(std::string_view text, std::string_view characters) {
  return text.find_first_not_of(characters) == std::string_view::npos;
}

// inet_pton() of macOS also accepts an interface's name after the address, so check the characters first.
bool is_address(int family, const std::string& host, std::string_view characters) {
  in6_addr address;  // large enough for both families
  return consists_of(host, characters) && inet_pton(family, host.c_str(), &address) == 1;
}

// A registered name (RFC 3986, section 3.2.2). The name may contain percent-encoding, which nothing decodes: a decoded
// name could contain a NUL, and the resolver would stop reading there, but the filter would not, so the two would read
// different names.
bool is_name(std::string_view host) {
  constexpr std::string_view kCharacters =
      "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-._~!$&'()*+,;=%";
  if (host.empty() || !consists_of(host, kCharacters)) return false;
  for (size_t at = host.find('%'); at != std::string_view::npos; at = host.find('%', at + 1)) {
    const std::string_view digits = host.substr(at + 1, 2);
    if (digits.size() < 2 || !consists_of(digits, kHexDigits)) return false;
  }
  return true;
}

}  // namespace

std::optional<Authority> parse_authority(std::string_view text) {
  Authority authority{};
  if (text.starts_with('[')) {
    const size_t end = text.find(']');
    if (end == std::string_view::npos) return std::nullopt;
    authority.host = text.substr(1, end - 1);
    authority.isAddress = true;
    if (!is_address(AF_INET6, authority.host, "0123456789abcdefABCDEF:.")) return std::nullopt;
    text.remove_prefix(end + 1);
  } else {
    authority.host = text.substr(0, text.find(':'));
    authority.isAddress = is_address(AF_INET, authority.host, "0123456789.");
    if (!is_name(authority.host)) return std::nullopt;
    text.remove_prefix(authority.host.size());
  }
  if (text.empty()) return authority;
  std::string_view digits = text.substr(1);
  if (text.front() != ':' || !consists_of(digits, kDigits)) return std::nullopt;
  if (digits.empty()) return authority;
  uint16_t port = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  if (error != std::errc() || port == 0) return std::nullopt;
  authority.port = port;
  return authority;
}

}  // namespace orvane
