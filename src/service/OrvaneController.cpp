#include "service/OrvaneController.h"

#include "database/db.h"
#include "database/db_properties.h"
#include "platform/Log.h"

namespace orvane {

OrvaneController* OrvaneController::shared() {
  // The object is never released, because connections may still use it while the process exits.
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

// These three messages do nothing, because the list of browsers comes from the bundle alone. The messages stay, because
// both sides of the protocol must have the same twelve messages (docs/compatibility.md).
void OrvaneController::addApplicationIdentifier(const Value& /*identifier*/) {}
void OrvaneController::removeApplicationIdentifier(const Value& /*identifier*/) {}
void OrvaneController::setApplicationIdentifiers(const Value& /*identifiers*/) {}

// Every edit increases the count, even an edit that changes nothing, because the count tells a companion that its edit
// has arrived. Lock order: the object's monitor, then the database's mutex.

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
  // The count wraps to 1, because 0 means that there has been no edit since the start.
  mChangesCount = mChangesCount == UINT64_MAX ? 1 : mChangesCount + 1;
}

}  // namespace orvane
