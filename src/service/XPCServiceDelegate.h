#pragma once

#include "platform/Value.h"
#include "platform/XPC.h"

namespace orvane {

// Accepts every connection and connects it to the shared control object. It tests no peer: the system decides who may
// connect.
class XPCServiceDelegate : public NSXPCListenerDelegate {
 public:
  static Ref<XPCServiceDelegate> init();

  // The service's name in the bundle's information: nil without one; a value of the wrong type is returned unchanged.
  static Value systemExtensionMachServiceName();

  bool shouldAcceptNewConnection(NSXPCListener& listener, NSXPCConnection& newConnection) override;

 protected:
  XPCServiceDelegate() = default;
  ~XPCServiceDelegate() override = default;
};

}  // namespace orvane
