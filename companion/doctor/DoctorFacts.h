#pragma once

#include <string>

#include "companion/doctor/Doctor.h"

namespace orvane {

// Which extension and keeper to look at.
struct Examination {
  std::string socket;           // if empty, the usual paths of the service's socket
  std::string service;          // the extension's service name
  std::string keeperStatePath;  // the keeper's state file
};

// Collects the facts of this machine.
Facts gather_facts(const Examination& examination);

}  // namespace orvane
