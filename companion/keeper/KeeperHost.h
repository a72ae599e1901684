#pragma once

#include <string>

#include "companion/list/ListGuard.h"

// What the keeper needs from the system.
namespace orvane {

// Tells the service manager the keeper's state, in the form of sd_notify(3). launchd takes no such messages.
void notify_service_manager(const std::string& state);

ListGuard::Now current_time();

// Whether the machine has no keeper beside this one. The keepers of several users must not undo each other's edits,
// because they would never stop.
extern const bool kIsOnlyKeeper;

// Gives free memory back to the system.
void release_free_memory();

}  // namespace orvane
