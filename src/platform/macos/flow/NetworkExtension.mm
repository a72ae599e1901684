#include "platform/macos/flow/NetworkExtension.h"

#import <NetworkExtension/NetworkExtension.h>

#include <utility>

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

::NWHostEndpoint* endpoint_object(const Ref<NWHostEndpoint>& endpoint) {
  if (!endpoint) return nil;
  return [::NWHostEndpoint endpointWithHostname:foundation_string(endpoint->hostname())
                                           port:foundation_string(endpoint->port())];
}

::NENetworkRule* network_rule_object(const NENetworkRule& rule) {
  return
      [[[::NENetworkRule alloc] initWithRemoteNetwork:endpoint_object(rule.remoteNetwork)
                                         remotePrefix:rule.remotePrefix
                                         localNetwork:endpoint_object(rule.localNetwork)
                                          localPrefix:rule.localPrefix
                                             protocol:static_cast<::NENetworkRuleProtocol>(rule.protocol)
                                            direction:static_cast<::NETrafficDirection>(rule.direction)] autorelease];
}

::NEFilterRule* rule_object(const NEFilterRule& rule) {
  return [[[::NEFilterRule alloc] initWithNetworkRule:network_rule_object(rule.networkRule)
                                               action:static_cast<::NEFilterAction>(rule.action)] autorelease];
}

::NEFilterSettings* settings_object(const NEFilterSettings& settings) {
  auto defaultAction = static_cast<::NEFilterAction>(settings.defaultAction);
  return [[[::NEFilterSettings alloc] initWithRules:rule_objects(settings.rules)
                                      defaultAction:defaultAction] autorelease];
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
  for (const NEFilterRule& rule : rules) {
    // The framework may refuse a rule and return nil. Skip this rule, because adding nil would end the process.
    if (::NEFilterRule* object = rule_object(rule)) [objects addObject:object];
  }
  return objects;
}

void NEFilterDataProvider::applySettings(const NEFilterSettings& settings, ErrorHandler completionHandler) {
  // The block retains the framework's provider until the framework has called and released the block.
  const Retained<::NEFilterDataProvider> provider(static_cast<::NEFilterDataProvider*>(platformObject()));
  [provider.get() applySettings:settings_object(settings)
              completionHandler:^(::NSError* error) {
                (void)provider;
                @autoreleasepool {
                  completionHandler(error_of(error));
                }
              }];
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
