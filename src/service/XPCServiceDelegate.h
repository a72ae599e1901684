#pragma once

#include "platform/Value.h"
#include "platform/XPC.h"

namespace orvane {

// Accepts every connection, and exports the shared OrvaneController on it. Does not check the peer, because the system
// decides who may connect.
class XPCServiceDelegate : public NSXPCListenerDelegate {
 public:
  static Ref<XPCServiceDelegate> init();

  // The service's name from the bundle's information; nil if there is none. A value that is not a string is returned
  // unchanged.
  static Value systemExtensionMachServiceName();

  bool shouldAcceptNewConnection(NSXPCListener& listener, NSXPCConnection& newConnection) override;

 protected:
  XPCServiceDelegate() = default;
  ~XPCServiceDelegate() override = default;
};

}  // namespace orvane
