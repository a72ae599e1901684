#include "platform/macos/flow/NetworkExtension.h"

#import <NetworkExtension/NetworkExtension.h>

#include <algorithm>
#include <span>
#include <string_view>
#include <vector>

#include "platform/Bundle.h"
#include "platform/Log.h"
#include "platform/macos/base/Retained.h"
#include "platform/macos/base/Values.h"
#include "platform/macos/foundation/Foundation.h"

namespace orvane {
namespace {

// These numbers are passed to the framework unchanged, so they must equal the framework's.
static_assert(static_cast<int64_t>(NENetworkRuleProtocol::UDP) == NENetworkRuleProtocolUDP);
static_assert(static_cast<int64_t>(NETrafficDirection::Outbound) == NETrafficDirectionOutbound);
static_assert(static_cast<int64_t>(NEFilterAction::Allow) == NEFilterActionAllow);
static_assert(static_cast<int64_t>(NEFilterAction::FilterData) == NEFilterActionFilterData);
static_assert(kFilterFlowBytesMax == NEFilterFlowBytesMax && sizeof(NSUInteger) == sizeof(uint64_t));

// The hosts of a rule that matches every host.
using AnyHost = std::span<const std::string_view>;
// The core's rules have an empty host. The framework's header does not say what an empty host means. It may count as a
// host name, although a rule must contain an address; flows to addresses would not match this rule.
constexpr std::string_view kEmptyHost[] = {""};
// NENetworkRule.h: a rule with one of these addresses matches every host except loopback.
constexpr std::string_view kWildcards[] = {"0.0.0.0", "::"};

bool matches_any_host(const NEFilterRule& rule) {
  return rule.networkRule.remoteNetwork && rule.networkRule.remoteNetwork->hostname().empty();
}

::NWHostEndpoint* endpoint_object(const Ref<NWHostEndpoint>& endpoint, std::string_view anyHost) {
  if (!endpoint) return nil;
  const std::string_view host = endpoint->hostname().empty() ? anyHost : endpoint->hostname();
  return [::NWHostEndpoint endpointWithHostname:foundation_string(host) port:foundation_string(endpoint->port())];
}

// Nil if the framework refuses the rule, or takes an empty host for a host name.
::NEFilterRule* rule_object(const NEFilterRule& rule, std::string_view anyHost) {
  const NENetworkRule& network = rule.networkRule;
  ::NENetworkRule* object = [[[::NENetworkRule alloc]
      initWithRemoteNetwork:endpoint_object(network.remoteNetwork, anyHost)
               remotePrefix:network.remotePrefix
               localNetwork:endpoint_object(network.localNetwork, anyHost)
                localPrefix:network.localPrefix
                   protocol:static_cast<::NENetworkRuleProtocol>(network.protocol)
                  direction:static_cast<::NETrafficDirection>(network.direction)] autorelease];
  // A rule that has lost its endpoint would match the flows of every port.
  if (object == nil || (network.remoteNetwork && [object matchRemoteEndpoint] == nil)) return nil;
  // NENetworkRule.h: a rule whose endpoint contains no IP address has no prefix.
  if (matches_any_host(rule) && anyHost.empty() && [object matchRemotePrefix] == NSNotFound) return nil;
  return [[[::NEFilterRule alloc] initWithNetworkRule:object
                                               action:static_cast<::NEFilterAction>(rule.action)] autorelease];
}

// Adds the framework's objects for the rules to `objects`. If the framework refuses a rule, leaves the rule out and
// returns false.
bool add_rules(::NSMutableArray* objects, const std::vector<NEFilterRule>& rules, AnyHost anyHost) {
  bool isComplete = true;
  for (const NEFilterRule& rule : rules) {
    for (std::string_view host : matches_any_host(rule) ? anyHost : AnyHost(kEmptyHost)) {
      if (::NEFilterRule* object = rule_object(rule, host)) {
        [objects addObject:object];
      } else {
        isComplete = false;
      }
    }
  }
  return isComplete;
}

const os_log_t& rules_log() {
  static const auto* log = new os_log_t(os_log_create(kBundleIdentifier, "NetworkExtension"));
  return *log;
}

using Provider = Retained<::NEFilterDataProvider>;
using ErrorHandler = NEFilterDataProvider::ErrorHandler;

void apply(const Provider& provider, ::NSArray* rules, NEFilterAction defaultAction, const ErrorHandler& handler) {
  ::NEFilterSettings* settings =
      [[[::NEFilterSettings alloc] initWithRules:rules
                                   defaultAction:static_cast<::NEFilterAction>(defaultAction)] autorelease];
  // Until the framework has called and released the block, the block keeps the provider retained.
  const Provider held = provider;
  const ErrorHandler called = handler;
  [provider.get() applySettings:settings
              completionHandler:^(::NSError* error) {
                (void)held;
                @autoreleasepool {
                  called(error_of(error));
                }
              }];
}

// Applies the settings with wildcard addresses in place of empty hosts.
void apply_wildcards(const Provider& provider, const NEFilterSettings& settings, const ErrorHandler& handler) {
  ::NSMutableArray* rules = [::NSMutableArray array];
  if (!add_rules(rules, settings.rules, kWildcards)) {
    ORVANE_LOG_ERROR(rules_log(),
                     "the system refused a rule of the filter; flows that the rule selects pass unfiltered");
  }
  if ([rules count] > 0) return apply(provider, rules, settings.defaultAction, handler);
  id words = @{NSLocalizedDescriptionKey : @"The system refused every rule of the filter."};
  handler(error_of([::NSError errorWithDomain:foundation_string(kBundleIdentifier) code:1 userInfo:words]));
}

}  // namespace

::NEFilterNewFlowVerdict* verdict_object(const NEFilterNewFlowVerdict& verdict) {
  switch (verdict.kind) {
    case NEFilterNewFlowVerdict::Kind::Allow:
      return [::NEFilterNewFlowVerdict allowVerdict];
    case NEFilterNewFlowVerdict::Kind::Drop:
      return [::NEFilterNewFlowVerdict dropVerdict];
    case NEFilterNewFlowVerdict::Kind::FilterData:
      break;
  }
  return [::NEFilterNewFlowVerdict filterDataVerdictWithFilterInbound:verdict.filterInbound
                                                     peekInboundBytes:verdict.peekInboundBytes
                                                       filterOutbound:verdict.filterOutbound
                                                    peekOutboundBytes:verdict.peekOutboundBytes];
}

::NEFilterDataVerdict* verdict_object(const NEFilterDataVerdict& verdict) {
  return verdict.kind == NEFilterDataVerdict::Kind::Drop ? [::NEFilterDataVerdict dropVerdict]
                                                         : [::NEFilterDataVerdict allowVerdict];
}

::NSArray* rule_objects(const std::vector<NEFilterRule>& rules) {
  ::NSMutableArray* objects = [::NSMutableArray arrayWithCapacity:rules.size()];
  add_rules(objects, rules, kEmptyHost);
  return objects;
}

// If the framework refuses rules with an empty host, tries wildcard addresses. Then the handler gets the outcome of
// this second attempt.
void NEFilterDataProvider::applySettings(const NEFilterSettings& settings, ErrorHandler completionHandler) {
  const Provider provider(static_cast<::NEFilterDataProvider*>(platformObject()));
  ::NSMutableArray* rules = [::NSMutableArray array];
  if (!add_rules(rules, settings.rules, kEmptyHost)) {
    ORVANE_LOG_ERROR(rules_log(), "the system refused a rule without a host; trying the addresses 0.0.0.0 and ::");
    return apply_wildcards(provider, settings, completionHandler);
  }
  // apply() keeps the provider retained until it has called this closure.
  ::NEFilterDataProvider* borrowed = provider.get();
  apply(provider, rules, settings.defaultAction, [borrowed, settings, completionHandler](const Ref<NSError>& error) {
    const auto& all = settings.rules;
    if (!error || std::none_of(all.begin(), all.end(), matches_any_host)) return completionHandler(error);
    ORVANE_LOG_ERROR(rules_log(),
                     "the system refused the rules without a host (%{public}@); trying the addresses 0.0.0.0 and ::",
                     error->localizedDescription());
    apply_wildcards(Provider(borrowed), settings, completionHandler);
  });
}

// The framework itself finds the class that the bundle names.
void NEFilterProvider::registerProviderClass(std::string_view /*name*/, Ref<NEFilterDataProvider> (* /*create*/)()) {}

int32_t NEFilterProvider::startSystemExtensionMode() {
  @autoreleasepool {
    [::NEFilterProvider startSystemExtensionMode];
  }
  return 0;
}

}  // namespace orvane
