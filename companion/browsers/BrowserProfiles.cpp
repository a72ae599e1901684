#include "companion/browsers/BrowserProfiles.h"

#include <filesystem>
#include <utility>

#include "platform/files/Files.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

constexpr size_t kSettingsLimit = size_t{32} << 20;

// Returns VALUE from the last line of the form `user_pref("NAME", VALUE);`, where NAME is `name`. Firefox writes each
// preference on its own line.
std::string_view preference(std::string_view text, std::string_view name) {
  const std::string start = "user_pref(\"" + std::string(name) + "\", ";
  size_t found = text.rfind(start);
  if (found == std::string_view::npos || (found != 0 && text[found - 1] != '\n')) return {};
  std::string_view rest = text.substr(found + start.size());
  return rest.substr(0, rest.find(");"));
}

// The folders that contain Firefox's profile folders. They differ by the kind of package.
std::vector<std::string> firefox_folders(const InstalledBrowser& browser, const std::string& home) {
  switch (browser.package) {
    case BrowserPackage::Flatpak: {
      const std::string own = home + "/.var/app/" + browser.identifier;
      return {own + "/.mozilla/firefox", own + "/config/mozilla/firefox"};
    }
    case BrowserPackage::Snap:
      return {home + "/snap/" + browser.identifier + "/common/.mozilla/firefox"};
    case BrowserPackage::Program:
      break;
  }
  return {home + "/.mozilla/firefox", home + "/.config/mozilla/firefox"};
}

}  // namespace

BrowserProfile parse_firefox_preferences(std::string_view text) {
  BrowserProfile profile;
  constexpr std::pair<HidingFeature, const char*> kPreferences[] = {
      {HidingFeature::EncryptedHello, "network.dns.echconfig.enabled"},
      {HidingFeature::SharedConnections, "network.http.http2.coalesce-hostnames"},
  };
  for (const auto& [feature, name] : kPreferences) {
    const std::string_view value = preference(text, name);
    if (value == "true" || value == "false") profile.features[feature] = value == "true";
  }
  return profile;
}

std::vector<BrowserProfile> browser_profiles(const InstalledBrowser& browser, const std::string& home) {
  std::vector<BrowserProfile> profiles;
  if (browser.identifier.find("irefox") == std::string::npos) return profiles;
  for (const std::string& folder : firefox_folders(browser, home)) {
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
      const std::string path = it->path().string() + "/prefs.js";
      const auto text = read_file_start(path, kSettingsLimit, Links::Refuse);
      if (!text) continue;
      profiles.push_back(parse_firefox_preferences(*text));
      profiles.back().path = path;
    }
  }
  return profiles;
}

}  // namespace orvane
