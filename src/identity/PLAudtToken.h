#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Log.h"
#include "platform/Object.h"
#include "platform/Value.h"

namespace orvane {

// Finds the program that owns an audit token. A provider makes one object for each flow, asks it for one or two bundle
// identifiers, and releases it. The object caches nothing. A look-up that fails returns nothing; most failures are
// logged at debug level. Thread-safe.
//
// The spelling of the class's name is frozen, because the name is also the log category (docs/compatibility.md).
class PLAudtToken : public NSObject {
 public:
  static Ref<PLAudtToken> auditTokenWithData(const Value& data) { return initWithData(data); }
  // Accepts any value, nil included: the look-ups check the token. Null if initialise() of the base class fails.
  static Ref<PLAudtToken> initWithData(const Value& data);

  // The token as it was given. Reading and setting are atomic.
  Value auditTokenData() const;
  void setAuditTokenData(Value data);

  // The bundle identifier of the program that owns the token.
  std::optional<std::string> bundleIdentifier() const;
  // The bundle identifier of the program that a process runs. The platform checks the pid, so any number is allowed.
  std::optional<std::string> bundleIdentifierFromPid(int32_t pid) const;
  // The bundle identifier of the process that the system holds responsible for the token's process.
  std::optional<std::string> responsibleBundleIdentifier() const;
  // The path of the program that owns the given token. The object's own token is not used.
  std::optional<std::string> applicationPathFromAuditToken(const Value& auditToken) const;

 protected:
  PLAudtToken() = default;
  ~PLAudtToken() override = default;

 private:
  os_log_t _log;
  mutable std::mutex auditTokenDataLock_;
  Value _auditTokenData;
};

}  // namespace orvane
