#include "platform/Foundation.h"

#include <boost/url/parse.hpp>
#include <cstdlib>
#include <utility>

namespace orvane {
namespace {

class Components final : public NSURLComponents {
 public:
  explicit Components(std::optional<std::string> host) : host_(std::move(host)) {}
  std::optional<std::string> host() const override { return host_; }

 private:
  std::optional<std::string> host_;
};

// Scheme and authority of a URL that has them, else the whole URL. Browsers leave characters such as '|' in path and
// query as the page wrote them, against RFC 3986: that must not hide the host from the filter.
std::string_view up_to_authority(std::string_view url) {
  size_t colon = url.find_first_of(":/?#");
  if (colon == std::string_view::npos || url.substr(colon, 3) != "://") return url;
  return url.substr(0, url.find_first_of("/?#", colon + 3));
}

}  // namespace

Ref<NSURLComponents> NSURLComponents::initWithURL(const NSURL& url, bool /*resolvingAgainstBaseURL*/) {
  // A URL is absolute already, so there is no base to resolve it against.
  std::string text = url.absoluteString();
  auto parsed = boost::urls::parse_uri_reference(up_to_authority(text));
  if (!parsed) return nullptr;
  std::optional<std::string> host = parsed->host();
  if (host->empty()) host.reset();
  return Ref<NSURLComponents>::adopt(new Components(std::move(host)));
}

int64_t integerValue(const std::string& string) { return std::strtoll(string.c_str(), nullptr, 10); }

}  // namespace orvane
