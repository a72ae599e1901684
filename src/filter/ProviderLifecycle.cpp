#include "filter/ProviderLifecycle.h"

namespace orvane {

void start_filter(NEFilterDataProvider& provider, const os_log_t& log, std::vector<NEFilterRule> rules,
                  NEFilterDataProvider::ErrorHandler completionHandler) {
  const NEFilterSettings settings = NEFilterSettings::initWithRules(std::move(rules), NEFilterAction::Allow);
  // The closure keeps the provider and the handler alive until the platform has called the closure.
  provider.applySettings(settings, [held = Ref<NEFilterDataProvider>::retained(&provider), log,
                                    completionHandler = std::move(completionHandler)](const Ref<NSError>& error) {
    if (error) ORVANE_LOG_ERROR(log, "Failed to apply filter settings: %@", error->localizedDescription());
    completionHandler(error);
  });
}

void stop_filter(const os_log_t& log, const std::function<void()>& completionHandler) {
  ORVANE_LOG_DEBUG(log, "stop filter");
  completionHandler();
}

NEFilterRule outbound_rule(const char* port, NENetworkRuleProtocol protocol) {
  return NEFilterRule::initWithNetworkRule(
      NENetworkRule::initWithRemoteNetwork(NWHostEndpoint::endpointWithHostname("", port), 0, nullptr, 0, protocol,
                                           NETrafficDirection::Outbound),
      NEFilterAction::FilterData);
}

void append_web_rules(std::vector<NEFilterRule>& rules) {
  static constexpr const char* kWebPorts[] = {"80", "443"};
  for (const char* webPort : kWebPorts) rules.push_back(outbound_rule(webPort, NENetworkRuleProtocol::TCP));
}

}  // namespace orvane
