#include "platform/names/Subdomains.h"

#include <arpa/inet.h>

#include <string>

namespace orvane {
namespace {

constexpr size_t kLongestName = 253;  // RFC 1035, section 2.3.4, without the dot of the root

bool is_address(const std::string& host) {
  in_addr address;
  return host.find(':') != std::string::npos || inet_pton(AF_INET, host.c_str(), &address) == 1;
}

// Where the registrable domain of `host` begins: a public suffix and one label more. A top-level name counts as a
// public suffix. The result is 0 if `host` itself is a public suffix.
size_t registrable_domain(const std::string& host) {
  size_t registrable = 0;
  for (size_t at = 0;;) {
    const size_t dot = host.find('.', at);
    if (dot == std::string::npos || is_public_suffix(host.c_str() + at)) return registrable;
    registrable = at;
    at = dot + 1;
  }
}

}  // namespace

std::vector<std::string_view> covering_hosts(std::string_view host) {
  const std::string text(host);
  if (host.empty() || host.size() > kLongestName || is_address(text)) return {};
  std::vector<std::string_view> hosts{host};
  const size_t last = registrable_domain(text);
  for (size_t at = 0; at < last;) {
    at = host.find('.', at) + 1;
    hosts.push_back(host.substr(at));
  }
  return hosts;
}

}  // namespace orvane
