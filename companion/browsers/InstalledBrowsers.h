#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/browsers/BrowserPolicy.h"
#include "platform/linux/process/ApplicationIndex.h"
#include "platform/linux/process/BrowserList.h"

namespace orvane {

enum class BrowserPackage { Program, Flatpak, Snap };

// An installed application with the category WebBrowser.
struct InstalledBrowser {
  std::string name;        // as menus show it
  std::string entry;       // the path of the desktop entry
  std::string identifier;  // the bundle identifier that the extension sees; empty when the program does not exist
  BrowserPackage package = BrowserPackage::Program;
  BrowserFamily family = BrowserFamily::Other;
  const PolicyPlace* place = nullptr;  // where the browser reads policies; null if not documented
};

// All browsers with a desktop entry in `folders` or `ownFolders`, each identifier once, sorted by name. `ownFolders`
// belong to a user. The extension does not read a user's desktop entries, so a program that has an entry only in
// `ownFolders` is identified by its file name.
std::vector<InstalledBrowser> installed_browsers(const ApplicationFolders& folders,
                                                 const std::vector<std::string>& ownFolders);

// The folders of desktop entries in a home directory.
std::vector<std::string> own_application_folders(const std::string& home);

}  // namespace orvane
