#pragma once

#include <functional>
#include <vector>

#include "platform/Log.h"
#include "platform/NetworkExtension.h"

// What both provider classes share: starting the filter, stopping it, and making its rules.
namespace orvane {

// Asks the platform to apply the rules, and to allow flows that match no rule. Passes the outcome to the handler, and
// logs a failure.
void start_filter(NEFilterDataProvider& provider, const os_log_t& log, std::vector<NEFilterRule> rules,
                  NEFilterDataProvider::ErrorHandler completionHandler);

// Logs the stop and calls the handler. A provider has nothing to release when it stops.
void stop_filter(const os_log_t& log, const std::function<void()>& completionHandler);

// A rule for all outbound flows to this port, on any host: the platform asks the provider about these flows.
NEFilterRule outbound_rule(const char* port, NENetworkRuleProtocol protocol);

// Appends a rule for TCP to each web port: 80, 443.
void append_web_rules(std::vector<NEFilterRule>& rules);

}  // namespace orvane
