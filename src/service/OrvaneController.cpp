#include "service/OrvaneController.h"

#include "database/db.h"
#include "database/db_properties.h"
#include "platform/Log.h"

namespace orvane {

OrvaneController* OrvaneController::shared() {
  // Made once, also under concurrent first calls, and never released: connections may outlive everything else.
  static OrvaneController* const instance = init().detach();
  return instance;
}

Ref<OrvaneController> OrvaneController::init() {
  auto controller = Ref<OrvaneController>::adopt(new OrvaneController);
  return controller->initialise() ? controller : nullptr;
}

void OrvaneController::pingWithReply(const BooleanReply& reply) { reply(true); }

void OrvaneController::getAppFilterStateWithReply(const BooleanReply& reply) { reply(mIsAppFilterActive); }

void OrvaneController::start() { ORVANE_LOG_INFO(default_log(), "receive start command"); }

void OrvaneController::stop() { ORVANE_LOG_INFO(default_log(), "receive stop command"); }

// Which applications are browsers comes from the bundle alone. The three messages are part of the protocol, which
// both sides must agree on exactly, so they stay and do nothing.
void OrvaneController::addApplicationIdentifier(const Value& /*identifier*/) {}
void OrvaneController::removeApplicationIdentifier(const Value& /*identifier*/) {}
void OrvaneController::setApplicationIdentifiers(const Value& /*identifiers*/) {}

// Each edit counts, whether or not it changed anything: the count tells a companion that its edit has arrived. The
// monitor is taken before the database's own lock, never the other way round.

void OrvaneController::addHostname(const Value& hostname) {
  ObjectMonitor monitor(this);
  db_hostname_add(hostname);
  incrementChangesCount();
}

void OrvaneController::removeHostname(const Value& hostname) {
  ObjectMonitor monitor(this);
  db_hostname_remove(hostname);
  incrementChangesCount();
}

void OrvaneController::setHostnames(const Value& hostnames) {
  ObjectMonitor monitor(this);
  db_hostname_set(hostnames);
  incrementChangesCount();
}

void OrvaneController::setProperties(const Value& properties, const Value& forHostname) {
  ObjectMonitor monitor(this);
  db_hostname_set_properties(forHostname, properties);
  incrementChangesCount();
}

void OrvaneController::getChangesCount(const CountReply& reply) {
  uint64_t count = 0;
  {
    ObjectMonitor monitor(this);
    count = mChangesCount;
  }
  reply(count);
}

void OrvaneController::incrementChangesCount() {
  // Wraps to 1: a count that has moved never reads 0 again.
  mChangesCount = mChangesCount == UINT64_MAX ? 1 : mChangesCount + 1;
}

}  // namespace orvane
