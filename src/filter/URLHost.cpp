#include "filter/URLHost.h"

namespace orvane {

std::optional<std::string> url_host(const NSURL& url) {
  const Ref<NSURLComponents> components = NSURLComponents::initWithURL(url, false);
  return components ? components->host() : std::nullopt;
}

}  // namespace orvane
