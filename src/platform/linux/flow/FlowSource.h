#pragma once

#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

namespace orvane {

// Shows the provider the outbound flows that the settings select, and carries out the provider's verdicts.
class FlowSource {
 public:
  virtual ~FlowSource() = default;

  // Starts showing flows, on the source's own threads. Call it once. Returns an error on failure.
  virtual std::optional<std::string> start(Ref<NEFilterDataProvider> provider, const NEFilterSettings& settings) = 0;

  // Stops showing flows. The proxy also ends the flows whose data it carries; netfilter lets open flows go on.
  virtual void stop() = 0;
};

}  // namespace orvane
