#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "companion/browsers/BrowserPolicy.h"
#include "companion/browsers/BrowserProfiles.h"
#include "companion/browsers/InstalledBrowsers.h"
#include "companion/doctor/ControlClients.h"
#include "companion/keeper/KeeperState.h"
#include "companion/text/AccessGroup.h"

namespace orvane {

// The result of one check. Each check looks at one thing that blocking needs.
struct Finding {
  enum class Result {
    Ok,
    Warning,  // works, but not fully or not permanently
    Problem,  // does not work
    Unknown,  // could not be checked
  };
  std::string check;    // the check's identifier; no release changes it, because scripts use it
  std::string subject;  // if the check covers several things: the one that was checked, such as a browser
  Result result;
  std::string found;   // one line
  std::string advice;  // one line: what to do; may be empty
};

// The state of a unit, as the service manager reports it.
struct UnitFacts {
  std::string name;
  bool known = false;      // the service manager answered
  bool installed = false;  // the service manager has this unit
  bool running = false;
  std::string state;            // "active (running)", with the service's own status line if it has one
  uint64_t hiddenNames = 0;     // for the extension: how many connections since its start hid the host's name
  bool filtersNothing = false;  // for the extension: it recognises no browser
  bool isRestarting = false;    // it has failed, and the service manager starts it again
};

// The result of connecting to the extension.
struct ConnectionFacts {
  enum class Outcome { Answered, NoSocket, Refused, Denied, Silent };
  Outcome outcome = Outcome::NoSocket;
  std::string socket;    // the socket's path; for NoSocket, where the socket should be, or why it can have no path
  uint64_t changes = 0;  // for Answered: the extension's count of edits
  std::string error{};   // for Silent: why there is no answer, in the words of `orvanectl status`
};

// The kernel's rules of one address family, as text.
struct RulesFacts {
  std::string program;               // the program that printed the rules
  std::optional<std::string> rules;  // nothing when they could not be read
  std::string error;                 // why they could not be read
};

struct BrowserFacts {
  InstalledBrowser browser;
  PolicyInForce policy;                  // empty when the browser has no documented folder of policies
  std::vector<BrowserProfile> profiles;  // the user's profiles of this browser
};

// A list that orvane-fetcher keeps up to date.
struct SubscriptionFacts {
  std::string name;
  bool isFetched = false;            // at least once
  std::optional<std::string> error;  // why the last fetch failed
  bool isWaiting = false;            // a copy that has shrunk waits for consent
};

// Everything that the checks need to know about the machine.
struct Facts {
  bool asRoot = false;
  UnitFacts extension, keeper, fetcher;
  ConnectionFacts connection;
  std::optional<std::vector<ControlClient>> clients;  // of the extension; nothing when they could not be read
  GroupFacts group;
  std::vector<pid_t> processes;          // the extensions in this network namespace, or in an unreadable one
  pid_t process = 0;                     // the extension that has the capabilities below; 0 for none
  std::optional<uint64_t> capabilities;  // the effective capabilities of `process`, one bit each (capabilities(7))
  std::vector<std::string> missingPrograms;
  std::optional<bool> hasQueueTarget;  // whether the kernel can hand packets to a queue; nothing if not known
  std::vector<RulesFacts> rules;       // empty if orvanectl does not run as root, or if programs are missing
  std::optional<std::string> queues;   // /proc/net/netfilter/nfnetlink_queue; only root can read it
  std::optional<KeeperState> list;
  std::vector<SubscriptionFacts> subscriptions;
  std::vector<std::string> badSubscriptions;  // the bad lines of the subscriptions' file, each with its fault
  std::string fetcherError;                   // why the fetcher could not read the subscriptions
  std::string subscriptionsError;             // why the subscriptions or their state could not be read
  std::string listError;                      // why the keeper's state could not be read
  BrowserList browserList;
  bool passesHTTP3 = false;  // the setting OrvaneHTTP3 of the extension
  std::vector<BrowserFacts> browsers;
};

// Turns the facts into findings, in the order in which a user should act on them.
std::vector<Finding> examine(const Facts& facts);

}  // namespace orvane
