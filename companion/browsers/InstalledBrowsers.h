#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/browsers/BrowserPolicy.h"
#include "platform/linux/process/ApplicationIndex.h"

namespace orvane {

// The list by which the extension tells browsers from other programs: a property list in its bundle.
struct BrowserList {
  std::string path;
  std::vector<std::string> endings;  // an application whose identifier ends with one of these is a browser
  std::string fault;                 // why the extension has no list; empty when it has one

  bool counts(std::string_view identifier) const;
};

// Where the package has the extension's bundle.
inline constexpr const char* kPackageBundle = "/usr/lib/orvane-se/OrvaneSE.systemextension";

// Reads BUNDLE/Contents/Resources/Browsers.plist as the extension does: no more than 1024 bytes of it.
BrowserList read_browser_list(const std::string& bundle);

enum class BrowserPackage { Program, Flatpak, Snap };

// A browser that is installed: an application with the category WebBrowser.
struct InstalledBrowser {
  std::string name;        // as menus show it
  std::string entry;       // its desktop entry's path
  std::string identifier;  // the bundle identifier by which the extension will know it; empty when there is none
  BrowserPackage package = BrowserPackage::Program;
  BrowserFamily family = BrowserFamily::Other;
  const PolicyPlace* place = nullptr;  // where it reads policies from; null when that is not known
};

// All browsers that have a desktop entry in one of the folders, or in one of a person's own, which the extension does
// not read: there a browser's identifier is the name of its program. Each identifier once, sorted by name.
std::vector<InstalledBrowser> installed_browsers(const ApplicationFolders& folders,
                                                 const std::vector<std::string>& ownFolders);

// Folders of desktop entries below a home directory.
std::vector<std::string> own_application_folders(const std::string& home);

}  // namespace orvane
