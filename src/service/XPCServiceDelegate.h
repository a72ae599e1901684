#pragma once

#include "platform/Value.h"
#include "platform/XPC.h"

namespace orvane {

// Accepts every connection and wires it to the shared control object. Who may connect is the system's affair, not ours:
// no peer is tested here.
class XPCServiceDelegate : public NSXPCListenerDelegate {
 public:
  static Ref<XPCServiceDelegate> init();

  // What the bundle gives as the service's name: nil when it gives none, and of whatever class it is.
  static Value systemExtensionMachServiceName();

  bool shouldAcceptNewConnection(NSXPCListener& listener, NSXPCConnection& newConnection) override;

 protected:
  XPCServiceDelegate() = default;
  ~XPCServiceDelegate() override = default;
};

}  // namespace orvane
