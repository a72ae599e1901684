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
  explicit SystemFlow(Object* flow) : flow_(flow) {}
  Value sourceAppAuditToken() const override { return value_of([object() sourceAppAuditToken]); }
  Ref<NSURL> URL() const override { return url_of([object() URL]); }

 protected:
  Object* object() const { return flow_.get(); }

 private:
  Retained<Object> flow_;
};

using PlainFlow = SystemFlow<NEFilterFlow, ::NEFilterFlow>;

class SocketFlow final : public SystemFlow<NEFilterSocketFlow, ::NEFilterSocketFlow> {
 public:
  SocketFlow(::NEFilterSocketFlow* flow, std::optional<std::string> name)
      : SystemFlow(flow), nameFromBytes_(std::move(name)) {}
  Ref<NWEndpoint> remoteEndpoint() const override { return endpoint_of([object() remoteEndpoint]); }
  std::optional<std::string> remoteHostname() const override {
    ::NSString* name = [object() remoteHostname];
    if (name == nil) return nameFromBytes_;
    return text_of(name);
  }
  int32_t socketType() const override { return [object() socketType]; }

 private:
  std::optional<std::string> nameFromBytes_;
};

}  // namespace

Ref<NEFilterFlow> flow_of(::NEFilterFlow* flow, std::optional<std::string> name) {
  if ([flow isKindOfClass:[::NEFilterSocketFlow class]]) {
    return Ref<SocketFlow>::adopt(new SocketFlow(static_cast<::NEFilterSocketFlow*>(flow), std::move(name)));
  }
  return Ref<PlainFlow>::adopt(new PlainFlow(flow));
}

}  // namespace orvane
