#pragma once

#include <functional>
#include <vector>

#include "platform/Log.h"
#include "platform/NetworkExtension.h"

// How a provider of ours starts and stops, whatever it filters.
namespace orvane {

// Puts the rules in force, flows that match none being allowed, and reports the outcome through the handler.
void start_filter(NEFilterDataProvider& provider, const os_log_t& log, std::vector<NEFilterRule> rules,
                  NEFilterDataProvider::ErrorHandler completionHandler);

// Calls the handler before it returns. A provider holds nothing that stopping would have to take down.
void stop_filter(const os_log_t& log, const std::function<void()>& completionHandler);

// The rule that hands the provider all outbound flows to a port of any host.
NEFilterRule outbound_rule(const char* port, NENetworkRuleProtocol protocol);

// Adds the rules for web traffic: TCP to each of a list of ports.
void append_web_rules(std::vector<NEFilterRule>& rules);

}  // namespace orvane
