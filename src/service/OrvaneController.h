#pragma once

#include <cstdint>

#include "platform/Synchronization.h"
#include "service/OrvaneSECommunication.h"

namespace orvane {

// The one object that companions talk to. Hands their edits to the block database and counts them, so that a companion
// can poll the count and see whether its edits have arrived. Messages come on several threads at once.
class OrvaneController : public OrvaneSECommunication {
 public:
  // The shared instance, made on first use and never given up. Owned by the process.
  static OrvaneController* shared();
  static Ref<OrvaneController> init();

  void pingWithReply(const BooleanReply& reply) override;
  void getAppFilterStateWithReply(const BooleanReply& reply) override;
  void start() override;
  void stop() override;
  void addApplicationIdentifier(const Value& identifier) override;
  void removeApplicationIdentifier(const Value& identifier) override;
  void setApplicationIdentifiers(const Value& identifiers) override;
  void addHostname(const Value& hostname) override;
  void removeHostname(const Value& hostname) override;
  void setHostnames(const Value& hostnames) override;
  void setProperties(const Value& properties, const Value& forHostname) override;
  void getChangesCount(const CountReply& reply) override;

  // Counts one change. The caller holds the object's monitor.
  void incrementChangesCount();

 protected:
  OrvaneController() = default;
  ~OrvaneController() override = default;

  bool mIsAppFilterActive = false;         // there is no application filter: never set
  Ref<NSRecursiveLock> mChangesCountLock;  // stays null: the object's own monitor guards the count
  uint64_t mChangesCount = 0;              // 0 means that nothing has changed since the extension started
};

}  // namespace orvane
