#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "platform/NetworkExtension.h"

namespace orvane {

// The provider for one browser: sends every flow of it to a held host name to the data stage, and decides there, where
// the date that suspends a name is honoured. Does not look at DNS. Keeps no state between calls.
class PLSafariFilterDataProvider : public NEFilterDataProvider {
 public:
  // Null when the base initialiser fails.
  static Ref<PLSafariFilterDataProvider> init();

  void startFilterWithCompletionHandler(ErrorHandler completionHandler) override;
  void stopFilterWithReason(NEProviderStopReason reason, const std::function<void()>& completionHandler) override;
  NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) override;
  NEFilterDataVerdict handleOutboundDataFromFlow(const NEFilterFlow& flow, uint64_t readBytesStartOffset,
                                                 std::span<const uint8_t> readBytes) override;
  NEFilterDataVerdict handleOutboundDataCompleteForFlow(const NEFilterFlow& flow) override;
  // Whether the program that opened the flow, or the application responsible for it, is that browser.
  bool isSafariBrowser(const NEFilterFlow& flow) const;
  std::vector<NEFilterRule> createFilterRules() const;

 protected:
  PLSafariFilterDataProvider() = default;
  ~PLSafariFilterDataProvider() override = default;

 private:
  os_log_t _log;
};

}  // namespace orvane
