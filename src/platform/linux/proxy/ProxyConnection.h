#pragma once

#include <cstdint>

#include "platform/NetworkExtension.h"
#include "platform/linux/base/Descriptor.h"

namespace orvane {

// What all connections of a proxy share. It lives until the last of them is over.
struct ProxyContext {
  Ref<NEFilterDataProvider> provider;
  NEFilterSettings settings;
  uint16_t port = 0;  // that the proxy listens on
  Descriptor stop;    // an eventfd(2); raised to end everything
};

// Serves one client of the proxy on the calling thread: one tunnel, or one request. Returns when the connection is
// over.
void serve_proxy_connection(const ProxyContext& context, Descriptor client);

}  // namespace orvane
