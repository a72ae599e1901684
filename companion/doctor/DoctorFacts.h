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

// Collects the facts that browser_warning() needs, which takes less time than all facts.
Facts gather_browser_facts();

// Collects all facts of this machine.
Facts gather_facts(const Examination& examination);

}  // namespace orvane
