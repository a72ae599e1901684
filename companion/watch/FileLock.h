#pragma once

#include <sys/types.h>

#include <string>
#include <system_error>

#include "platform/files/Descriptor.h"

namespace orvane {

// A lock on a file that shows whether a service runs: the service holds the lock, and others test it.

// Takes the lock, and gives the file this mode. Returns a descriptor that holds the lock while the descriptor is open.
// Returns an empty descriptor if another process has the lock, or if the lock's file cannot be made; only then is
// `error` set.
Descriptor take_file_lock(const std::string& path, mode_t mode, std::error_code& error);

// Whether a process has the lock, even if this process is in another PID namespace. False if the file cannot be read.
bool is_file_locked(const std::string& path);

}  // namespace orvane
