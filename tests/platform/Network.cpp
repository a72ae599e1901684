#include <cstdlib>
#include <cstring>

#include "platform/DNS.h"
#include "platform/Dispatch.h"
#include "platform/NetworkExtension.h"
#include "platform/StandIn.h"
#include "service/OrvaneSECommunication.h"

namespace orvane {

using stand_in::dns;
using stand_in::filter;
using stand_in::listener;
using stand_in::trace;

stand_in::DNSState& stand_in::dns() {
  static DNSState state;
  return state;
}

stand_in::FilterState& stand_in::filter() {
  static FilterState state;
  return state;
}

stand_in::ListenerState& stand_in::listener() {
  static ListenerState state;
  return state;
}

namespace {

struct ScriptedListener : NSXPCListener {
  ScriptedListener() { stand_in::born("NSXPCListener"); }
  ~ScriptedListener() override {
    stand_in::died("NSXPCListener");
    trace(listener().listener == this ? "the current listener went" : "an old listener went");
  }
  void setDelegate(NSXPCListenerDelegate* delegate) override {
    trace("listener delegate");
    listener().delegate = delegate;
  }
  void resume() override { trace("listener resume"); }
};

}  // namespace

dns_question_t* dns_parse_question(const char* buffer, uint32_t length) {
  dns().parsed.assign(buffer, length);
  if (dns().fails) return nullptr;
  stand_in::born("dns_question_t");
  return new dns_question_t{dns().name ? strdup(dns().name->c_str()) : nullptr, 1, 1};
}

void dns_free_question(dns_question_t* question) {
  std::free(question->name);
  delete question;
  stand_in::died("dns_question_t");
}

void NEFilterDataProvider::applySettings(const NEFilterSettings& settings, ErrorHandler completionHandler) {
  filter().applied = settings;
  filter().pendingApply = [completionHandler = std::move(completionHandler)] {
    completionHandler(filter().applyError);
  };
  if (!filter().defersApply) std::exchange(filter().pendingApply, nullptr)();
}

void NEFilterProvider::registerProviderClass(std::string_view name, Ref<NEFilterDataProvider> (*create)()) {
  filter().classes[std::string(name)] = create;
}

int32_t NEFilterProvider::startSystemExtensionMode() {
  trace("startSystemExtensionMode");
  return filter().startStatus;
}

Ref<NSXPCListener> NSXPCListener::initWithMachServiceName(const Value& name) {
  auto made = Ref<ScriptedListener>::adopt(new ScriptedListener);
  listener().name = name;
  listener().listener = made.get();
  return made;
}

void stand_in::Connection::setExportedInterface(const NSXPCInterface& exportedInterface) {
  trace("exported interface");
  protocol = exportedInterface.protocol();
}
void stand_in::Connection::setExportedObject(OrvaneSECommunication* exportedObject) {
  trace("exported object");
  exported = Ref<OrvaneSECommunication>::retained(exportedObject);
}
void stand_in::Connection::activate() { trace("activate"); }
void stand_in::Connection::setInvalidationHandler(std::function<void()> handler) {
  trace("invalidation handler");
  invalidated = std::move(handler);
}
void stand_in::Connection::setInterruptionHandler(std::function<void()> handler) {
  trace("interruption handler");
  interrupted = std::move(handler);
}

void dispatch_main() {
  trace("dispatch_main");
  throw stand_in::MainThreadParked();
}

}  // namespace orvane
