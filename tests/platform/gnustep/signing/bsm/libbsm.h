#pragma once

#include <sys/types.h>

#include <cstdint>

// A stand-in for the part of the library that reads audit tokens. According to the comments in <bsm/libbsm.h>, only its
// functions may read the words of a token. Here the words are those of platform/Process.h.

struct audit_token_t {
  uint32_t val[8];
};
inline pid_t audit_token_to_pid(audit_token_t token) { return static_cast<pid_t>(token.val[5]); }
