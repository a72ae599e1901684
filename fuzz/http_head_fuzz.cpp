#include <boost/url/authority_view.hpp>
#include <boost/url/parse.hpp>
#include <cctype>

#include "FirstBytes.h"
#include "platform/names/Authority.h"

using namespace orvane;

namespace {

// Aborts unless parse_authority() gives the same answer as Boost.URL, which implements all of RFC 3986.
void compare_with_boost(std::string_view text) {
  const auto ours = parse_authority(text);
  const auto theirs = boost::urls::parse_authority(text);
  using boost::urls::host_type;
  const bool isAddress = theirs && (theirs->host_type() == host_type::ipv4 || theirs->host_type() == host_type::ipv6);
  const bool hasPort = theirs && theirs->has_port() && !theirs->port().empty();
  // Boost 1.81 takes port 65537 for port 1, so the digits are read here.
  const unsigned long long port =
      hasPort ? std::strtoull(std::string(std::string_view(theirs->port())).c_str(), nullptr, 10) : 0;
  const bool isPort = port > 0 && port <= UINT16_MAX;
  const bool isAccepted = theirs && !theirs->has_userinfo() && (isAddress || theirs->host_type() == host_type::name) &&
                          !theirs->encoded_host().empty() && (!hasPort || isPort);
  // Boost 1.81 rejects a name that begins with an IPv4 address ("192.0.2.1a"). RFC 3986 allows this name.
  if (!theirs && ours && !ours->isAddress && std::isdigit(static_cast<unsigned char>(text.front()))) return;
  if (ours.has_value() != isAccepted) std::abort();
  if (!ours) return;
  const std::string host = isAddress ? theirs->host_address() : std::string(std::string_view(theirs->encoded_host()));
  if (ours->host != host || ours->isAddress != isAddress || ours->port.has_value() != hasPort) std::abort();
  if (hasPort && *ours->port != port) std::abort();
}

}  // namespace

// Reads the input as the first bytes of a connection to a web server, and its first line as an authority.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  read_first_bytes({data, size});
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  compare_with_boost(text.substr(0, text.find('\n')));
  return 0;
}
