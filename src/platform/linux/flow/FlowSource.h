#pragma once

#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

namespace orvane {

// Finds the outbound flows of programs and asks the provider about those that its settings name.
class FlowSource {
 public:
  virtual ~FlowSource() = default;

  // Puts the settings in force; flows are shown to the provider from then on, on threads of the source's own. Called
  // once. Returns what went wrong, nothing for success.
  virtual std::optional<std::string> start(Ref<NEFilterDataProvider> provider, const NEFilterSettings& settings) = 0;

  // Takes no more flows and ends those that it carries itself. The provider is not asked about new flows afterwards.
  virtual void stop() = 0;
};

}  // namespace orvane
