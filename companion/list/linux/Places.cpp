#include "companion/list/Places.h"

namespace orvane {

// The package makes the list's folder; members of the folder's group may edit the list.
const Places& places() {
  static const Places places{
      .list = "/var/lib/orvane-se/list",
      .keeperState = "/run/orvane-keeper/state",
      .dropIns = "/etc/orvane-se/lists.d",
      .subscriptions = "/var/lib/orvane-fetcher/lists",
      .catalogue = "/usr/share/orvane-se/sites",
      .sites = "/etc/orvane-se/sites",
  };
  return places;
}

const char* const kMissingFolderAdvice = "is orvane-se installed? Or name another file with --list";
const char* const kFindLockHolder = "find it with lslocks";

}  // namespace orvane
