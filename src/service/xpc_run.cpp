#include "service/xpc_run.h"

#include "platform/XPC.h"
#include "service/XPCServiceDelegate.h"

namespace orvane {

namespace {

Ref<XPCServiceDelegate> service_delegate;
Ref<NSXPCListener> service_listener;

}  // namespace

void xpc_run() {
  service_delegate = XPCServiceDelegate::init();
  service_listener = NSXPCListener::initWithMachServiceName(XPCServiceDelegate::systemExtensionMachServiceName());
  service_listener->setDelegate(service_delegate.get());
  service_listener->resume();
}

}  // namespace orvane
