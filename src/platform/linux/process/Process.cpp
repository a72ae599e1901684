#include "platform/Process.h"

#include "platform/IdentityAnswers.h"
#include "platform/linux/process/ProcessIdentity.h"

namespace orvane {

pid_t audit_token_to_pid(audit_token_t token) { return static_cast<pid_t>(token.val[5]); }

pid_t responsibility_get_pid_responsible_for_pid(pid_t pid) {
  return IdentityAnswers::responsible(pid, [pid] { return ProcessIdentity::system().responsibleFor(pid); });
}

}  // namespace orvane
