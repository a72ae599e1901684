#include "companion/list/Places.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace orvane {
namespace {

std::string home_folder() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home == '/') return home;
  const passwd* user = getpwuid(getuid());
  return user != nullptr ? user->pw_dir : "";
}

}  // namespace

// The keeper is a launchd agent of the user, so the user's own folder has the list. Only an administrator may write
// files in /Library.
const Places& places() {
  static const Places places = [] {
    const std::string own = home_folder() + "/Library/Application Support/OrvaneSE/";
    const std::string administrators = "/Library/Application Support/OrvaneSE/";
    return Places{
        .list = own + "list",
        .keeperState = own + "state",
        .dropIns = administrators + "lists.d",
        .subscriptions = own + "fetched/lists",
        .catalogue = "/Applications/OrvaneSE.app/Contents/Resources/sites",
        .sites = administrators + "sites",
    };
  }();
  return places;
}

// orvanectl makes the folder of the user who runs it, but does not make another user's folder.
const char* const kMissingFolderAdvice = "do not use sudo, or name another file with --list";
const char* const kFindLockHolder = "find it with lsof";

}  // namespace orvane
