#pragma once

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Log.h"
#include "platform/Object.h"
#include "platform/Value.h"

namespace orvane {

// Who owns an audit token. Made for one flow, asked once or twice, dropped; nothing is remembered between flows. A
// question that has no answer gives nothing, after messages at debug level. The questions may be asked on any thread.
//
// The spelling is the name's own: it is in the log category that people filter by.
class PLAudtToken : public NSObject {
 public:
  static Ref<PLAudtToken> auditTokenWithData(const Value& data) { return initWithData(data); }
  // Takes any data, nil included: a token is checked where it is used. Null when the base initialiser fails.
  static Ref<PLAudtToken> initWithData(const Value& data);

  // The token as it was given. Atomic: a reader always sees a whole one.
  Value auditTokenData() const;
  void setAuditTokenData(Value data);

  // The bundle identifier of the code that owns the token.
  std::optional<std::string> bundleIdentifier() const;
  // The bundle identifier of a process's code. Any number may be asked for.
  std::optional<std::string> bundleIdentifierFromPid(int32_t pid) const;
  // The bundle identifier of the process that the system holds responsible for the token's process.
  std::optional<std::string> responsibleBundleIdentifier() const;
  // The path of the code that owns another token.
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
