#pragma once

#include <vector>

#include "platform/Log.h"
#include "platform/NetworkExtension.h"

namespace orvane {

// The general provider: keeps browsers away from held host names, at the first question wherever the name is known, and
// writes their DNS questions to the log. Other programs' flows are never touched. Keeps no state between calls.
class FilterDataProvider : public NEFilterDataProvider {
 public:
  // Null when the base initialiser fails.
  static Ref<FilterDataProvider> init();

  void startFilterWithCompletionHandler(ErrorHandler completionHandler) override;
  void stopFilterWithReason(NEProviderStopReason reason, const std::function<void()>& completionHandler) override;
  NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) override;
  NEFilterDataVerdict handleOutboundDataFromFlow(const NEFilterFlow& flow, uint64_t readBytesStartOffset,
                                                 std::span<const uint8_t> readBytes) override;
  NEFilterDataVerdict handleOutboundDataCompleteForFlow(const NEFilterFlow& flow) override;
  // Whether the program that opened the flow, or the application responsible for it, is a browser.
  bool isFlowFromBrowser(const NEFilterFlow& flow) const;
  std::vector<NEFilterRule> createFilterRules() const;

 protected:
  FilterDataProvider() = default;
  ~FilterDataProvider() override = default;

 private:
  void observeQuestion(std::span<const uint8_t> readBytes) const;

  os_log_t _log;
};

}  // namespace orvane
