#include "platform/Foundation.h"

#include <boost/url/parse.hpp>
#include <cstdlib>
#include <utility>

#include "platform/names/HostName.h"

namespace orvane {
namespace {

class Components final : public NSURLComponents {
 public:
  explicit Components(std::optional<std::string> host) : host_(std::move(host)) {}
  std::optional<std::string> host() const override { return host_; }

 private:
  std::optional<std::string> host_;
};

// The scheme, host and port of a URL; the whole URL if it has no host. User names, paths and queries are cut off before
// the URL is parsed, because they may contain characters that browsers accept but RFC 3986 forbids, for example '|'.
// The parser would reject such a URL, and the filter would not see its host.
std::string without_surroundings(std::string_view url) {
  const size_t colon = url.find_first_of(":/?#");
  if (colon == std::string_view::npos || url.substr(colon, 3) != "://") return std::string(url);
  std::string_view authority = url.substr(colon + 3);
  authority = authority.substr(0, authority.find_first_of("/?#"));
  if (const size_t at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
  return std::string(url.substr(0, colon + 3)).append(authority);
}

}  // namespace

Ref<NSURLComponents> NSURLComponents::initWithURL(const NSURL& url, bool /*resolvingAgainstBaseURL*/) {
  // An NSURL here is always absolute, so there is no base URL.
  const std::string text = without_surroundings(url.absoluteString());
  auto parsed = boost::urls::parse_uri_reference(text);
  if (!parsed) return nullptr;
  std::optional<std::string> host = listed_form(parsed->host());
  if (host->empty()) host.reset();
  return Ref<NSURLComponents>::adopt(new Components(std::move(host)));
}

int64_t integerValue(const std::string& string) { return std::strtoll(string.c_str(), nullptr, 10); }

}  // namespace orvane
