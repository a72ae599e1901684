#include "filter/PellUtils.h"

namespace orvane {

const NEFilterSocketFlow* socketFlow(const NEFilterFlow& flow) {
  return dynamic_cast<const NEFilterSocketFlow*>(&flow);
}

bool isSocketFlow(const NEFilterFlow& flow) { return socketFlow(flow) != nullptr; }

uint64_t port(const NEFilterFlow& flow) {
  const NEFilterSocketFlow* socket = socketFlow(flow);
  if (socket == nullptr) return 0;
  // A flow may get its endpoint between two of the three calls of remoteEndpoint(), so fewer calls could give another
  // result. The number of calls is frozen (docs/compatibility.md).
  if (!socket->remoteEndpoint()) return 0;
  if (dynamic_cast<const NWHostEndpoint*>(socket->remoteEndpoint().get()) == nullptr) return 0;
  const Ref<NWEndpoint> endpoint = socket->remoteEndpoint();
  const auto* host = dynamic_cast<const NWHostEndpoint*>(endpoint.get());
  return host == nullptr ? 0 : static_cast<uint64_t>(integerValue(host->port()));
}

}  // namespace orvane
