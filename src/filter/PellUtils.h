#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

// What the providers ask of any flow.
namespace orvane {

// The flow itself when it is a socket flow (or of a class derived from it), else null.
const NEFilterSocketFlow* socketFlow(const NEFilterFlow& flow);
bool isSocketFlow(const NEFilterFlow& flow);

// The remote port of a socket flow whose remote endpoint is a host; 0 when there is none or it is no number. Not
// checked for the range of ports: a negative number comes back as a very large one.
uint64_t port(const NEFilterFlow& flow);

// The host of a URL, in the URL's own spelling. Nothing when it has none.
std::optional<std::string> url_host(const NSURL& url);

}  // namespace orvane
