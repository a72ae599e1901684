#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Foundation.h"
#include "platform/Object.h"
#include "platform/Value.h"

namespace orvane {

// Endpoints. Immutable.
class NWEndpoint : public NSObject {};

class NWHostEndpoint : public NWEndpoint {
 public:
  // `port` is a decimal number or a service's name.
  static Ref<NWHostEndpoint> endpointWithHostname(std::string hostname, std::string port) {
    return Ref<NWHostEndpoint>::adopt(new NWHostEndpoint(std::move(hostname), std::move(port)));
  }
  const std::string& hostname() const { return hostname_; }
  const std::string& port() const { return port_; }

 private:
  NWHostEndpoint(std::string hostname, std::string port) : hostname_(std::move(hostname)), port_(std::move(port)) {}
  std::string hostname_, port_;
};

// A flow of network data that belongs to one process. The platform owns the flow and lends it to the provider for one
// call. The flow's properties may change between two reads.
class NEFilterFlow : public NSObject {
 public:
  // The audit token of the process that opened the flow: data of 32 bytes, or nil when the process is unknown.
  virtual Value sourceAppAuditToken() const = 0;
  // Null when the flow has no URL.
  virtual Ref<NSURL> URL() const = 0;
};

class NEFilterSocketFlow : public NEFilterFlow {
 public:
  // Null while the endpoint is unknown.
  virtual Ref<NWEndpoint> remoteEndpoint() const = 0;
  // The host name that the application asked for; nothing if it is unknown. The name has the form of the list's names
  // (names/HostName.h); but if macOS itself reports the name, it has the application's spelling.
  virtual std::optional<std::string> remoteHostname() const = 0;
  // SOCK_STREAM or SOCK_DGRAM, as socket(2) numbers them.
  virtual int32_t socketType() const = 0;
};

// The peek count (see NEFilterNewFlowVerdict) that asks for all bytes of a flow.
inline constexpr uint64_t kFilterFlowBytesMax = UINT64_MAX;

// The verdict on a new flow. After FilterData, the platform passes data to the provider: for each filtered direction,
// at most as many bytes as its peek count. The provider's verdict on the data, or on the end of the data, then decides
// the flow.
struct NEFilterNewFlowVerdict {
  enum class Kind { Allow, Drop, FilterData };

  static NEFilterNewFlowVerdict allowVerdict() { return {Kind::Allow}; }
  static NEFilterNewFlowVerdict dropVerdict() { return {Kind::Drop}; }
  static NEFilterNewFlowVerdict filterDataVerdictWithFilterInbound(bool filterInbound, uint64_t peekInboundBytes,
                                                                   bool filterOutbound, uint64_t peekOutboundBytes) {
    return {Kind::FilterData, filterInbound, peekInboundBytes, filterOutbound, peekOutboundBytes};
  }

  Kind kind;
  bool filterInbound = false;
  uint64_t peekInboundBytes = 0;
  bool filterOutbound = false;
  uint64_t peekOutboundBytes = 0;

  friend bool operator==(const NEFilterNewFlowVerdict&, const NEFilterNewFlowVerdict&) = default;
};

// The verdict on a flow's data, or on the end of its data. It is final for the flow.
struct NEFilterDataVerdict {
  enum class Kind { Allow, Drop };

  static NEFilterDataVerdict allowVerdict() { return {Kind::Allow}; }
  static NEFilterDataVerdict dropVerdict() { return {Kind::Drop}; }

  Kind kind;

  friend bool operator==(const NEFilterDataVerdict&, const NEFilterDataVerdict&) = default;
};

// The numbers are those of macOS's NetworkExtension framework.
enum class NENetworkRuleProtocol : int64_t { Any = 0, TCP = 1, UDP = 2 };
enum class NETrafficDirection : int64_t { Any = 0, Inbound = 1, Outbound = 2 };
enum class NEFilterAction : int64_t { Invalid = 0, Allow = 1, Drop = 2, Remap = 3, FilterData = 4 };
enum class NEProviderStopReason : int64_t { None = 0, UserInitiated = 1, ProviderFailed = 2 };

// The flows that a rule matches. An empty host name or a null endpoint means any host. An endpoint with an address and
// the prefix 0 means this address alone.
struct NENetworkRule {
  static NENetworkRule initWithRemoteNetwork(Ref<NWHostEndpoint> remoteNetwork, uint64_t remotePrefix,
                                             Ref<NWHostEndpoint> localNetwork, uint64_t localPrefix,
                                             NENetworkRuleProtocol protocol, NETrafficDirection direction) {
    return {std::move(remoteNetwork), remotePrefix, std::move(localNetwork), localPrefix, protocol, direction};
  }

  Ref<NWHostEndpoint> remoteNetwork;
  uint64_t remotePrefix;
  Ref<NWHostEndpoint> localNetwork;
  uint64_t localPrefix;
  NENetworkRuleProtocol protocol;
  NETrafficDirection direction;
};

struct NEFilterRule {
  static NEFilterRule initWithNetworkRule(NENetworkRule networkRule, NEFilterAction action) {
    return {std::move(networkRule), action};
  }

  NENetworkRule networkRule;
  NEFilterAction action;
};

struct NEFilterSettings {
  static NEFilterSettings initWithRules(std::vector<NEFilterRule> rules, NEFilterAction defaultAction) {
    return {std::move(rules), defaultAction};
  }

  std::vector<NEFilterRule> rules;  // the first match decides
  NEFilterAction defaultAction;     // for flows that no rule matches
};

// A provider of verdicts. The platform creates one object of the class that the bundle names, starts it, asks it for
// verdicts, and stops it. Each of these calls may come on any thread.
class NEFilterDataProvider : public NSObject {
 public:
  // The error is null on success.
  using ErrorHandler = std::function<void(const Ref<NSError>&)>;

  virtual void startFilterWithCompletionHandler(ErrorHandler completionHandler) = 0;
  virtual void stopFilterWithReason(NEProviderStopReason reason, const std::function<void()>& completionHandler) = 0;
  virtual NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) = 0;
  // `readBytes` are outbound bytes of the flow, from the offset `readBytesStartOffset` on.
  virtual NEFilterDataVerdict handleOutboundDataFromFlow(const NEFilterFlow& flow, uint64_t readBytesStartOffset,
                                                         std::span<const uint8_t> readBytes) = 0;
  virtual NEFilterDataVerdict handleOutboundDataCompleteForFlow(const NEFilterFlow& flow) = 0;

  // Asks the platform to apply the settings. The platform calls the handler once, on any thread, when it has applied
  // the settings or has failed to apply them.
  void applySettings(const NEFilterSettings& settings, ErrorHandler completionHandler);

  // The platform's object for this provider, or null. Borrowed.
  void setPlatformObject(void* object) { platformObject_ = object; }
  void* platformObject() const { return platformObject_; }

 private:
  void* platformObject_ = nullptr;
};

class NEFilterProvider {
 public:
  // Registers a provider class under the name by which the bundle may choose it. On macOS the system itself finds the
  // class, and this function does nothing. Call it before startSystemExtensionMode.
  static void registerProviderClass(std::string_view name, Ref<NEFilterDataProvider> (*create)());

  // From now on the platform may create and call the provider that the bundle names. Returns 0, or the platform's
  // status when no provider can run.
  static int32_t startSystemExtensionMode();
};

}  // namespace orvane
