#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "platform/Log.h"
#include "platform/NetworkExtension.h"

namespace orvane {

// The provider for Safari alone. It asks for the outbound data of every flow to a held host, and drops the flow at its
// first data unless the host is suspended (db_properties.h). It ignores DNS. Keeps no state between calls.
class PLSafariFilterDataProvider : public NEFilterDataProvider {
 public:
  // Null if initialise() of the base class fails.
  static Ref<PLSafariFilterDataProvider> init();

  void startFilterWithCompletionHandler(ErrorHandler completionHandler) override;
  void stopFilterWithReason(NEProviderStopReason reason, const std::function<void()>& completionHandler) override;
  NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) override;
  NEFilterDataVerdict handleOutboundDataFromFlow(const NEFilterFlow& flow, uint64_t readBytesStartOffset,
                                                 std::span<const uint8_t> readBytes) override;
  NEFilterDataVerdict handleOutboundDataCompleteForFlow(const NEFilterFlow& flow) override;
  // Whether the process that opened the flow, or the application that is responsible for this process, is Safari.
  bool isSafariBrowser(const NEFilterFlow& flow) const;
  std::vector<NEFilterRule> createFilterRules() const;

 protected:
  PLSafariFilterDataProvider() = default;
  ~PLSafariFilterDataProvider() override = default;

 private:
  os_log_t _log;
};

}  // namespace orvane
