#pragma once

#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

namespace orvane {

// Shows the provider the outbound flows that the settings select, and carries out the provider's verdicts.
class FlowSource {
 public:
  virtual ~FlowSource() = default;

  // Starts showing flows, on the source's own threads. Call it once. Returns an error.
  virtual std::optional<std::string> start(Ref<NEFilterDataProvider> provider, const NEFilterSettings& settings) = 0;

  // Ends the flows whose data goes through the source's own sockets (a proxy). The provider gets no new flows
  // afterwards.
  virtual void stop() = 0;
};

}  // namespace orvane
