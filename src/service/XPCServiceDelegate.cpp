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
  // The result of this check is not used (docs/compatibility.md), because the listener itself reports a name that it
  // cannot use.
  (void)name.isString();
  return name;
}

bool XPCServiceDelegate::shouldAcceptNewConnection(NSXPCListener& /*listener*/, NSXPCConnection& newConnection) {
  newConnection.setExportedInterface(NSXPCInterface::interfaceWithProtocol(OrvaneSECommunication::kProtocol));
  newConnection.setExportedObject(OrvaneController::shared());
  newConnection.activate();
  // The handlers are set after activate(): that order is frozen (docs/compatibility.md). If the connection ends before
  // the handlers are set, their log messages may be missing.
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
