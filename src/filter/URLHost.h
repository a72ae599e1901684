#pragma once

#include <optional>
#include <string>

#include "platform/Foundation.h"

namespace orvane {

// The host of a URL, as NSURLComponents::host() gives it. Nothing when the URL has no host.
std::optional<std::string> url_host(const NSURL& url);

}  // namespace orvane
