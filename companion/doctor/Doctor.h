#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "companion/browsers/BrowserPolicy.h"
#include "companion/browsers/BrowserProfiles.h"
#include "companion/browsers/InstalledBrowsers.h"
#include "companion/keeper/KeeperState.h"

namespace orvane {

// What was found out of one thing that must be right for hosts to be blocked.
struct Finding {
  enum class Result {
    Ok,
    Warning,  // works, but not as well as it could, or not for ever
    Problem,  // does not work
    Unknown,  // could not be found out
  };
  std::string check;    // a word, the same from release to release
  std::string subject;  // which of several things of a kind, such as a browser's name; empty where there is but one
  Result result;
  std::string found;   // one line
  std::string advice;  // one line: what to do; empty where there is nothing to be done
};

// What the service manager says of a unit.
struct UnitFacts {
  std::string name;
  bool known = false;      // the manager answered
  bool installed = false;  // and has such a unit
  bool running = false;
  std::string state;  // its words, "active (running)"
};

// What became of an attempt to talk to the extension.
struct ConnectionFacts {
  enum class Outcome { Answered, NoSocket, Refused, Denied, Silent };
  Outcome outcome = Outcome::NoSocket;
  std::string socket;  // the path; all that were tried, where there is no socket
};

// How the person who asks stands to the group whose members may talk to the extension.
struct GroupFacts {
  std::string user;
  bool exists = false;
  bool listed = false;   // the person is a member
  bool inForce = false;  // and this process knows it: membership counts from the next login on
};

// The kernel's rules of one address family, as text.
struct RulesFacts {
  std::string program;               // that printed them
  std::optional<std::string> rules;  // nothing: could not be read
  std::string error;                 // why
};

struct BrowserFacts {
  InstalledBrowser browser;
  PolicyInForce policy;                  // where it has a place for policies
  std::vector<BrowserProfile> profiles;  // of the person who asks
};

// All that is looked at.
struct Facts {
  bool asRoot = false;
  UnitFacts extension, keeper;
  ConnectionFacts connection;
  GroupFacts group;
  std::vector<pid_t> processes;          // extensions in this network namespace
  pid_t process = 0;                     // the one that is looked at more closely; 0 for none
  std::optional<uint64_t> capabilities;  // its effective ones, a bit each (capabilities(7))
  std::vector<std::string> missingPrograms;
  std::optional<bool> hasQueueTarget;  // the kernel can hand packets to a queue
  std::vector<RulesFacts> rules;       // empty where root alone may look
  std::optional<std::string> queues;   // the kernel's list of packet queues
  std::optional<KeeperState> list;
  std::string listError;  // why there is no state of the keeper's
  BrowserList browserList;
  std::vector<BrowserFacts> browsers;
};

// What the facts mean, in the order in which to put things right.
std::vector<Finding> examine(const Facts& facts);

}  // namespace orvane
