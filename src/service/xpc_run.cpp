#include "service/xpc_run.h"

#include "platform/XPC.h"
#include "service/XPCServiceDelegate.h"

namespace orvane {

namespace {

// These references are never destroyed, because the system may call the objects until the process has ended.
Ref<XPCServiceDelegate>& service_delegate = *new Ref<XPCServiceDelegate>;
Ref<NSXPCListener>& service_listener = *new Ref<NSXPCListener>;

}  // namespace

void xpc_run() {
  service_delegate = XPCServiceDelegate::init();
  service_listener = NSXPCListener::initWithMachServiceName(XPCServiceDelegate::systemExtensionMachServiceName());
  service_listener->setDelegate(service_delegate.get());
  service_listener->resume();
}

}  // namespace orvane
