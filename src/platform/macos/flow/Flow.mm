#include "platform/macos/flow/Flow.h"

#import <NetworkExtension/NetworkExtension.h>

#include <utility>

#include "platform/macos/base/Retained.h"
#include "platform/macos/base/Values.h"
#include "platform/macos/foundation/Foundation.h"

namespace orvane {
namespace {

// An endpoint that is not a host, such as a Bonjour service.
class OtherEndpoint final : public NWEndpoint {};

Ref<NWEndpoint> endpoint_of(::NWEndpoint* endpoint) {
  if (endpoint == nil) return nullptr;
  if (![endpoint isKindOfClass:[::NWHostEndpoint class]]) return Ref<OtherEndpoint>::adopt(new OtherEndpoint);
  auto* host = static_cast<::NWHostEndpoint*>(endpoint);
  return NWHostEndpoint::endpointWithHostname(text_of([host hostname]), text_of([host port]));
}

// Implements the properties that every flow has. Base is the core's class, Object the framework's.
template <class Base, class Object>
class SystemFlow : public Base {
 public:
  SystemFlow(Object* flow, std::optional<std::string> alias) : flow_(flow), alias_(std::move(alias)) {}
  Value sourceAppAuditToken() const override { return value_of([object() sourceAppAuditToken]); }
  Ref<NSURL> URL() const override {
    ::NSURL* url = [object() URL];
    if (url != nil && alias_) url = [::NSURL URLWithString:foundation_string("http://" + *alias_ + "/")];
    return url_of(url);
  }

 protected:
  Object* object() const { return flow_.get(); }
  const std::optional<std::string>& alias() const { return alias_; }

 private:
  Retained<Object> flow_;
  std::optional<std::string> alias_;
};

using PlainFlow = SystemFlow<NEFilterFlow, ::NEFilterFlow>;

class SocketFlow final : public SystemFlow<NEFilterSocketFlow, ::NEFilterSocketFlow> {
 public:
  SocketFlow(::NEFilterSocketFlow* flow, std::optional<std::string> name, std::optional<std::string> alias)
      : SystemFlow(flow, std::move(alias)), nameFromBytes_(std::move(name)) {}
  Ref<NWEndpoint> remoteEndpoint() const override { return endpoint_of([object() remoteEndpoint]); }
  std::optional<std::string> remoteHostname() const override {
    if (alias()) return alias();
    ::NSString* name = [object() remoteHostname];
    if (name == nil) return nameFromBytes_;
    return text_of(name);
  }
  int32_t socketType() const override { return [object() socketType]; }

 private:
  std::optional<std::string> nameFromBytes_;
};

}  // namespace

Ref<NEFilterFlow> flow_of(::NEFilterFlow* flow, std::optional<std::string> name, std::optional<std::string> alias) {
  if ([flow isKindOfClass:[::NEFilterSocketFlow class]]) {
    return Ref<SocketFlow>::adopt(
        new SocketFlow(static_cast<::NEFilterSocketFlow*>(flow), std::move(name), std::move(alias)));
  }
  return Ref<PlainFlow>::adopt(new PlainFlow(flow, std::move(alias)));
}

std::optional<std::string> host_of(::NEFilterFlow* flow, const std::optional<std::string>& name) {
  ::NSString* host = [[flow URL] host];
  if (host == nil && [flow isKindOfClass:[::NEFilterSocketFlow class]])
    host = [static_cast<::NEFilterSocketFlow*>(flow) remoteHostname];
  return host == nil ? name : text_of(host);
}

}  // namespace orvane
