#include <cstdlib>
#include <cstring>

#include "platform/DNS.h"
#include "platform/Dispatch.h"
#include "platform/NetworkExtension.h"
#include "platform/StandIn.h"

namespace orvane {

using stand_in::filter;
using stand_in::listener;
using stand_in::trace;

namespace {

struct ScriptedListener : NSXPCListener, stand_in::Counted {
  ScriptedListener() : Counted("NSXPCListener") {}
  ~ScriptedListener() override {
    trace(listener.listener == this ? "the current listener goes" : "an old listener goes");
  }
  void setDelegate(NSXPCListenerDelegate* delegate) override {
    trace("listener delegate");
    listener.delegate = Ref<NSXPCListenerDelegate>::retained(delegate);
  }
  void resume() override { trace("listener resume"); }
};

struct Question : dns_question_t, stand_in::Counted {
  explicit Question(char* text) : dns_question_t{text, 1, 1}, Counted("dns_question_t") {}
};

}  // namespace

dns_question_t* dns_parse_question(const char* buffer, uint32_t length) {
  auto& dns = stand_in::dns;
  dns.parsed.assign(buffer, length);
  return dns.fails ? nullptr : new Question(dns.name ? strdup(dns.name->c_str()) : nullptr);
}

void dns_free_question(dns_question_t* question) {
  std::free(question->name);
  delete static_cast<Question*>(question);
}

void NEFilterDataProvider::applySettings(const NEFilterSettings&, ErrorHandler) {}

void NEFilterProvider::registerProviderClass(std::string_view name, Ref<NEFilterDataProvider> (*create)()) {
  filter.classes[std::string(name)] = create;
}

int32_t NEFilterProvider::startSystemExtensionMode() {
  trace("startSystemExtensionMode");
  return filter.startStatus;
}

Ref<NSXPCListener> NSXPCListener::initWithMachServiceName(const Value& name) {
  auto made = Ref<ScriptedListener>::adopt(new ScriptedListener);
  listener.name = name;
  listener.listener = made.get();
  return made;
}

void dispatch_main() {
  trace("dispatch_main");
  throw stand_in::MainThreadParked();
}

}  // namespace orvane
