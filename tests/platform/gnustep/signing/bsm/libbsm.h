#pragma once

#include <sys/types.h>

#include <cstdint>

// A stand-in for the part of the library that reads audit tokens. The words of a token are those that <bsm/audit.h> and
// the functions of <bsm/libbsm.h> have.

struct audit_token_t {
  uint32_t val[8];
};
inline pid_t audit_token_to_pid(audit_token_t token) { return static_cast<pid_t>(token.val[5]); }
