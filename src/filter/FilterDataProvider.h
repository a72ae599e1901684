#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "platform/Log.h"
#include "platform/NetworkExtension.h"

namespace orvane {

// The general provider. It drops a browser's flow to a held host: when the flow opens, or, if the flow has no host name
// by then, at its first data. It logs browsers' DNS questions, and allows the flows of all other programs. Keeps no
// state between calls.
class FilterDataProvider : public NEFilterDataProvider {
 public:
  // Null if initialise() of the base class fails.
  static Ref<FilterDataProvider> init();

  void startFilterWithCompletionHandler(ErrorHandler completionHandler) override;
  void stopFilterWithReason(NEProviderStopReason reason, const std::function<void()>& completionHandler) override;
  NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) override;
  NEFilterDataVerdict handleOutboundDataFromFlow(const NEFilterFlow& flow, uint64_t readBytesStartOffset,
                                                 std::span<const uint8_t> readBytes) override;
  NEFilterDataVerdict handleOutboundDataCompleteForFlow(const NEFilterFlow& flow) override;
  // Whether the process that opened the flow, or the application that is responsible for this process, is a browser.
  bool isFlowFromBrowser(const NEFilterFlow& flow) const;
  std::vector<NEFilterRule> createFilterRules() const;

 protected:
  FilterDataProvider() = default;
  ~FilterDataProvider() override = default;

 private:
  void logQuestion(std::span<const uint8_t> readBytes) const;

  os_log_t _log;
};

}  // namespace orvane
