#pragma once

#include <cstdint>

#include "platform/Synchronization.h"
#include "service/OrvaneSECommunication.h"

namespace orvane {

// The object that all companions share. It passes their edits on to the block database and counts the edits. A
// companion polls the count to see whether its edits have arrived. Thread-safe.
class OrvaneController : public OrvaneSECommunication {
 public:
  // The shared instance, made on first use and never released.
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

  // Counts one edit. The caller holds the object's monitor.
  void incrementChangesCount();

 protected:
  OrvaneController() = default;
  ~OrvaneController() override = default;

  bool mIsAppFilterActive = false;         // never set: there is no application filter
  Ref<NSRecursiveLock> mChangesCountLock;  // unused: the object's monitor guards the count
  uint64_t mChangesCount = 0;              // edits since the start; wraps to 1, not to 0
};

}  // namespace orvane
