#pragma once

#include <cstdint>

#include "platform/NetworkExtension.h"
#include "platform/files/Descriptor.h"
#include "platform/linux/proxy/ProxyPlaces.h"

namespace orvane {

// Shared by all connections of a proxy. Lives until the last connection ends.
struct ProxyContext {
  Ref<NEFilterDataProvider> provider;
  NEFilterSettings settings;
  uint16_t port = 0;  // the port on which the proxy listens
};

// Serves one client on the calling thread, with one tunnel or one request. Returns when the connection has ended.
void serve_proxy_connection(const ProxyContext& context, ProxyPlace& place, Descriptor client);

}  // namespace orvane
