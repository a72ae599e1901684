#pragma once

#include <sys/types.h>

#include <string>
#include <system_error>

#include "platform/files/Descriptor.h"

namespace orvane {

// A lock on a file that shows whether a service runs: the service holds the lock, and others test it.

// Creates the file if it is missing, gives it this mode, and takes the lock. Each user who may read the file can keep
// the service from taking the lock, so choose the mode accordingly. Returns a descriptor that holds the lock while the
// descriptor is open. If another process has the lock, returns an empty descriptor. If anything else fails, also sets
// `error`.
Descriptor take_file_lock(const std::string& path, mode_t mode, std::error_code& error);

// Whether a process has the lock; the process may be in another PID namespace. A process that may only read the file
// cannot pretend to have the lock. False if the file cannot be read.
bool is_file_locked(const std::string& path);

}  // namespace orvane
