#include "platform/Process.h"

#include <bsm/libbsm.h>

#include <cstring>

#include "platform/IdentityAnswers.h"

// This function is in the system library, but no header declares it. The import is weak, so that the extension still
// starts on a system that lacks the function.
extern "C" pid_t responsibility_get_pid_responsible_for_pid(pid_t pid) __attribute__((weak_import));

namespace orvane {

pid_t audit_token_to_pid(audit_token_t token) {
  ::audit_token_t systems;
  static_assert(sizeof systems == sizeof token);
  std::memcpy(&systems, &token, sizeof systems);
  return ::audit_token_to_pid(systems);
}

pid_t responsibility_get_pid_responsible_for_pid(pid_t pid) {
  auto* const find = ::responsibility_get_pid_responsible_for_pid;
  if (find == nullptr) return pid;  // without the function, each process is responsible for itself
  return IdentityAnswers::responsible(pid, [pid, find] { return find(pid); });
}

}  // namespace orvane
