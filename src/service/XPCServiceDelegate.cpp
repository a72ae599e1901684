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
  // Looked at and not acted on: what is wrong with a name is for the listener to say, who can also say why.
  (void)name.isString();
  return name;
}

bool XPCServiceDelegate::shouldAcceptNewConnection(NSXPCListener& /*listener*/, NSXPCConnection& newConnection) {
  newConnection.setExportedInterface(NSXPCInterface::interfaceWithProtocol(OrvaneSECommunication::kProtocol));
  newConnection.setExportedObject(OrvaneController::shared());
  newConnection.activate();
  // After the activation: an end that comes first may go unreported, which costs two lines in the log and no more.
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
