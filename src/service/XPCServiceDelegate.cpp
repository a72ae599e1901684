#include "service/XPCServiceDelegate.h"

#include "platform/Bundle.h"
#include "platform/Log.h"
#include "service/OrvaneController.h"

namespace orvane {

Ref<XPCServiceDelegate> XPCServiceDelegate::init() {
  auto delegate = Ref<XPCServiceDelegate>::adopt(new XPCServiceDelegate);
  return delegate->initialise() ? delegate : nullptr;
}

Value XPCServiceDelegate::systemExtensionMachServiceName() {
  Value name = bundle_get_information(bundle_get_main(), "NSEndpointSecurityMachServiceName");
  // Not rejected: the listener reports a name that it cannot use.
  (void)name.isString();
  return name;
}

bool XPCServiceDelegate::shouldAcceptNewConnection(NSXPCListener& /*listener*/, NSXPCConnection& newConnection) {
  newConnection.setExportedInterface(NSXPCInterface::interfaceWithProtocol(OrvaneSECommunication::kProtocol));
  newConnection.setExportedObject(OrvaneController::shared());
  newConnection.activate();
  // After activate(): that order is frozen (docs/compatibility.md). A connection that ends in between may lack the
  // handlers' log lines.
  newConnection.setInvalidationHandler([] {
    ORVANE_LOG_DEFAULT(default_log(), "connection invalidated");
    OrvaneController::shared()->stop();
  });
  newConnection.setInterruptionHandler([] {
    ORVANE_LOG_DEFAULT(default_log(), "connection interrupted");
    OrvaneController::shared()->stop();
  });
  return true;
}

}  // namespace orvane
