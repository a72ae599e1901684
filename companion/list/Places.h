#pragma once

#include <string>

namespace orvane {

// Where the list of this machine is (on macOS: of this user), and the files that belong to it.
struct Places {
  std::string list;
  std::string keeperState;    // the state file of the keeper that runs as a service
  std::string dropIns;        // the folder of the administrator's lists
  std::string subscriptions;  // the folder of the fetched lists
  std::string catalogue;      // the folder with the sites of the package
  std::string sites;          // the folder with the sites of the administrator
};
const Places& places();

// Advice for messages about the list's file: what to do if its folder is missing, and how to find out which program has
// locked the folder.
extern const char* const kMissingFolderAdvice;
extern const char* const kFindLockHolder;

}  // namespace orvane
