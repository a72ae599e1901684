#pragma once

#include <optional>
#include <string>

#include "platform/Foundation.h"

namespace orvane {

// The host of a URL, in the URL's spelling. Nothing when the URL has no host.
std::optional<std::string> url_host(const NSURL& url);

}  // namespace orvane
