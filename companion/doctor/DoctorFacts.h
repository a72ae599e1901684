#pragma once

#include <string>
#include <vector>

#include "companion/doctor/Doctor.h"

namespace orvane {

// Which extension and keeper to look at.
struct Examination {
  std::string socket;           // if empty, the usual paths of the service's socket
  std::string service;          // the extension's service name
  std::string keeperStatePath;  // the keeper's state file
};

// The installed browsers, with the policies and the user's profiles.
std::vector<BrowserFacts> look_at_browsers();

// Collects the facts of this machine.
Facts gather_facts(const Examination& examination);

}  // namespace orvane
