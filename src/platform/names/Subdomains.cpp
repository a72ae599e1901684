#include "platform/names/Subdomains.h"

#include <arpa/inet.h>
#include <libpsl.h>

#include <algorithm>
#include <string>

namespace orvane {
namespace {

constexpr size_t kLongestName = 253;  // RFC 1035, section 2.3.4, without the dot of the root

// The newer of two versions of the Public Suffix List: the file of Debian's package publicsuffix, and the version that
// is compiled into libpsl.
const psl_ctx_t* public_suffixes() {
  static const psl_ctx_t* const list = psl_latest(nullptr);
  return list;
}

bool is_address(const std::string& host) {
  in_addr address;
  return host.find(':') != std::string::npos || inet_pton(AF_INET, host.c_str(), &address) == 1;
}

}  // namespace

std::vector<std::string_view> covering_hosts(std::string_view host) {
  const std::string text(host);
  if (host.empty() || host.size() > kLongestName || is_address(text)) return {};
  std::vector<std::string_view> hosts{host};
  const char* registrable = psl_registrable_domain(public_suffixes(), text.c_str());
  if (registrable == nullptr) return hosts;
  const auto last = static_cast<size_t>(registrable - text.c_str());
  for (size_t at = 0; at < last;) {
    at = std::min(host.find('.', at), last - 1) + 1;
    hosts.push_back(host.substr(at));
  }
  return hosts;
}

bool is_public_suffix(std::string_view host) {
  return psl_is_public_suffix2(public_suffixes(), std::string(host).c_str(), PSL_TYPE_ANY | PSL_TYPE_NO_STAR_RULE) == 1;
}

}  // namespace orvane
