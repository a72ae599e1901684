#pragma once

#include <sys/types.h>

#include <cstdint>

namespace orvane {

// The identity of a process at one moment, as in <bsm/audit.h> of macOS. The words are: audit user, effective user,
// effective group, real user, real group, process, session, version of the process identifier.
struct audit_token_t {
  uint32_t val[8];
};
static_assert(sizeof(audit_token_t) == 32);

pid_t audit_token_to_pid(audit_token_t token);

// The process that the system holds responsible for the process `pid`: the process of the application for which `pid`
// works, or `pid` itself. On failure, for example if no process has the number `pid`, returns a number that no process
// has.
pid_t responsibility_get_pid_responsible_for_pid(pid_t pid);

}  // namespace orvane
