#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/browsers/InstalledBrowsers.h"

namespace orvane {

// What a person has set in a browser, in one of their profiles. Nothing where the browser's own choice holds.
struct BrowserProfile {
  std::string path;  // the file of settings
  std::optional<bool> http3;
  std::optional<std::string> dnsOverHttps;  // "off", "automatic" (where it can be had), "secure" (nothing else)
};

// The values of the last user_pref() of these names in Firefox's prefs.js.
BrowserProfile parse_firefox_preferences(std::string_view text);
// Chromium's "Local State", a JSON object. What is none says nothing.
BrowserProfile parse_chromium_state(std::string_view text);

// The profiles of a browser below a home directory.
std::vector<BrowserProfile> browser_profiles(const InstalledBrowser& browser, const std::string& home);

}  // namespace orvane
