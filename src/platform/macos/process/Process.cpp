#include "platform/Process.h"

#include <bsm/libbsm.h>

#include <cstring>

// This function is in the system library, but no header declares it.
extern "C" pid_t responsibility_get_pid_responsible_for_pid(pid_t pid);

namespace orvane {

pid_t audit_token_to_pid(audit_token_t token) {
  ::audit_token_t systems;
  static_assert(sizeof systems == sizeof token);
  std::memcpy(&systems, &token, sizeof systems);
  return ::audit_token_to_pid(systems);
}

pid_t responsibility_get_pid_responsible_for_pid(pid_t pid) {
  return ::responsibility_get_pid_responsible_for_pid(pid);
}

}  // namespace orvane
