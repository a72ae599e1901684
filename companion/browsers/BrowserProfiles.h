#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/browsers/InstalledBrowsers.h"

namespace orvane {

// A user's settings in one browser profile.
struct BrowserProfile {
  std::string path;                          // the file with the settings
  PerFeature<std::optional<bool>> features;  // on or off; no value if the browser's default applies
};

// Reads Firefox's prefs.js. If several lines set the same preference, the last of them decides.
BrowserProfile parse_firefox_preferences(std::string_view text);

// The profiles of a browser in a home directory. Empty unless the browser is Firefox: other browsers have no setting
// that concerns a HidingFeature, or keep it elsewhere.
std::vector<BrowserProfile> browser_profiles(const InstalledBrowser& browser, const std::string& home);

}  // namespace orvane
