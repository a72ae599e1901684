#include "companion/browsers/BrowserPolicy.h"

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>

#include "platform/files/Files.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr size_t kPolicyLimit = size_t{1} << 20;
constexpr const char* kOurFile = "orvane-se.json";
constexpr const char* kFirefoxFile = "policies.json";

// The policies that switch a HidingFeature off. `path` leads to the policy in the JSON file, as a JSON pointer (RFC
// 6901).
struct Policy {
  BrowserFamily family;
  HidingFeature feature;
  Json::json_pointer path;
  bool off;                   // the value that switches the feature off
  bool isPreference = false;  // the policy sets a preference of Firefox; users can change a value that is not locked
};
const std::vector<Policy>& policies() {
  static const std::vector<Policy> kPolicies = [] {
    using enum BrowserFamily;
    using enum HidingFeature;
    auto path = [](const char* text) { return Json::json_pointer(text); };
    return std::vector<Policy>{
        {Chromium, EncryptedHello, path("/EncryptedClientHelloEnabled"), false},
        {Firefox, EncryptedHello, path("/policies/DisableEncryptedClientHello"), true},
        {Firefox, SharedConnections, path("/policies/Preferences/network.http.http2.coalesce-hostnames"), false, true},
    };
  }();
  return kPolicies;
}

// The policies of this family that switch these features off.
Json policies_off(std::span<const HidingFeature> features, BrowserFamily family) {
  Json json = Json::object();
  for (const Policy& policy : policies()) {
    if (policy.family != family || std::find(features.begin(), features.end(), policy.feature) == features.end())
      continue;
    json[policy.path] = policy.isPreference ? Json{{"Value", policy.off}, {"Status", "locked"}} : Json(policy.off);
  }
  return json;
}

// The architecture of this machine, as Flatpak's paths name it.
std::string flatpak_architecture() {
  utsname system{};
  return ::uname(&system) == 0 ? system.machine : "x86_64";
}

// Sources of the folders: Google's "Chrome Browser quick start (Linux)", Chromium's "Linux Quick Start" (Ubuntu's
// builds read the second folder below), the vendors' pages on policies for Edge, Brave and Firefox, Mozilla's "Firefox
// administrator reference" and the README of Flathub's org.chromium.Chromium. The Flatpaks of Chrome, Edge and Brave
// read the same folders as the other packages of these browsers.
std::vector<PolicyPlace> make_places() {
  using enum BrowserFamily;
  const std::string parent = "/var/lib/flatpak", extensions = parent + "/extension/";
  const std::string architecture = flatpak_architecture();
  return {
      {"Chromium", Chromium, "/etc/chromium/policies/managed", kOurFile, "/etc", ""},
      {"Chromium of Ubuntu", Chromium, "/etc/chromium-browser/policies/managed", kOurFile, "/etc", ""},
      {"Google Chrome", Chromium, "/etc/opt/chrome/policies/managed", kOurFile, "/etc/opt", "com.google.Chrome"},
      {"Microsoft Edge", Chromium, "/etc/opt/edge/policies/managed", kOurFile, "/etc/opt", "com.microsoft.Edge"},
      {"Brave", Chromium, "/etc/brave/policies/managed", kOurFile, "/etc", "com.brave.Browser"},
      {"Firefox", Firefox, "/etc/firefox/policies", kFirefoxFile, "/etc", ""},
      // The "1" in this path is the version of Flatpak's extension point. If the path had no name after "Extension.",
      // Chromium would not start.
      {"Chromium (Flatpak)", Chromium,
       extensions + "org.chromium.Chromium.Extension.orvane-se/" + architecture + "/1/policies/managed", kOurFile,
       parent, "org.chromium.Chromium"},
      {"Firefox (Flatpak)", Firefox,
       extensions + "org.mozilla.firefox.systemconfig/" + architecture + "/stable/policies", kFirefoxFile, parent,
       "org.mozilla.firefox"},
  };
}

// The folders that we may create or remove for a place, the innermost first.
std::vector<std::string> folders_of(const PolicyPlace& place, const std::string& root) {
  std::vector<std::string> folders;
  for (fs::path folder = place.folder; folder != place.parent; folder = folder.parent_path()) {
    folders.push_back(root + folder.string());
  }
  return folders;
}

enum class Found { Nothing, Ours, Foreign };

// A file is ours if it is byte for byte what we write. A symbolic link is never ours, whatever it points to.
Found find_file(const PolicyPlace& place, const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT || errno == ENOTDIR ? Found::Nothing : Found::Foreign;
  auto content = read_file_start(path, kPolicyLimit, Links::Refuse);
  if (!content) return Found::Foreign;
  return *content == policy_text(place.family) ? Found::Ours : Found::Foreign;
}

// Creates the folders of a place. Returns the reason of a failure, or an empty text. chmod() restores the permissions
// that the umask took away, because the browsers of all users must be able to read the folders.
std::string make_folders(const PolicyPlace& place, const std::string& root) {
  std::vector<std::string> folders = folders_of(place, root);
  for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) {
    if (::mkdir(folder->c_str(), 0755) == 0) {
      if (::chmod(folder->c_str(), 0755) == 0) continue;
    } else if (errno == EEXIST) {
      continue;
    }
    return *folder + ": " + std::strerror(errno);
  }
  return {};
}

void remove_empty_folders(const PolicyPlace& place, const std::string& root) {
  for (const std::string& folder : folders_of(place, root)) {
    if (::rmdir(folder.c_str()) != 0) return;
  }
}

PolicyChange install(const PolicyPlace& place, const std::string& root) {
  const std::string path = root + place.path();
  const Found found = find_file(place, path);
  if (found == Found::Foreign) return {&place, PolicyChange::Outcome::Foreign, {}};
  std::error_code error;
  if (found == Found::Ours || !fs::exists(root + place.parent, error))
    return {&place, PolicyChange::Outcome::Nothing, {}};
  std::string reason = make_folders(place, root);
  if (reason.empty()) {
    // The temporary file is beside the folder, not in it, because Chromium reads every file in the folder as a policy.
    const std::string temporary = "../.orvane-se.new-" + std::to_string(::getpid());
    error = replace_file(path, temporary, policy_text(place.family), 0644);
    if (error) reason = path + ": " + error.message();
  }
  if (reason.empty()) return {&place, PolicyChange::Outcome::Done, {}};
  remove_empty_folders(place, root);
  return {&place, PolicyChange::Outcome::Failed, reason};
}

PolicyChange remove(const PolicyPlace& place, const std::string& root) {
  const std::string path = root + place.path();
  const Found found = find_file(place, path);
  if (found == Found::Nothing) return {&place, PolicyChange::Outcome::Nothing, {}};
  if (found == Found::Foreign) return {&place, PolicyChange::Outcome::Foreign, {}};
  if (::unlink(path.c_str()) != 0) {
    return {&place, PolicyChange::Outcome::Failed, path + ": " + std::strerror(errno)};
  }
  remove_empty_folders(place, root);
  return {&place, PolicyChange::Outcome::Done, {}};
}

// Whether the policy file with the content `json` switches the policy's feature on (true) or off (false); no value if
// the file does neither. For a preference, Firefox accepts a bare value, which it treats as locked, or an object with a
// value and a status.
std::optional<bool> read_policy(const Policy& policy, const Json& json) {
  if (!json.contains(policy.path)) return std::nullopt;
  const Json* value = &json[policy.path];
  if (policy.isPreference && value->is_object()) {
    if (value->value("Status", Json()) != "locked" || !value->contains("Value")) return std::nullopt;
    value = &value->at("Value");
  }
  return value->is_boolean() ? std::optional(value->get<bool>() != policy.off) : std::nullopt;
}

std::vector<std::string> policy_files(const PolicyPlace& place, const std::string& root) {
  if (place.family == BrowserFamily::Firefox) return {root + place.path()};
  std::vector<std::string> files;
  std::error_code error;
  for (fs::directory_iterator it(root + place.folder, error), end; !error && it != end; it.increment(error)) {
    std::error_code ignored;
    if (it->is_regular_file(ignored)) files.push_back(it->path().string());
  }
  // If several files contain the same policy, Chromium 156 uses the file whose name sorts last.
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

std::string PolicyPlace::path() const { return folder + '/' + file; }

std::span<const PolicyPlace> policy_places() {
  static const std::vector<PolicyPlace> kPlaces = make_places();
  return kPlaces;
}

bool has_policy(BrowserFamily family, HidingFeature feature) {
  return std::any_of(policies().begin(), policies().end(),
                     [&](const Policy& policy) { return policy.family == family && policy.feature == feature; });
}

std::string policy_text(BrowserFamily family) { return policies_off(kHidingFeatures, family).dump(2) + '\n'; }

std::string policy_against(HidingFeature feature, BrowserFamily family) {
  return policies_off({&feature, 1}, family).dump();
}

PolicyInForce policy_in_force(const PolicyPlace& place, const std::string& root) {
  PolicyInForce result;
  result.isForeign = find_file(place, root + place.path()) == Found::Foreign;
  for (const std::string& path : policy_files(place, root)) {
    auto text = read_file_start(path, kPolicyLimit, Links::Follow);
    if (!text) {
      std::error_code error;
      if (fs::exists(path, error)) result.unreadable.push_back(path);
      continue;
    }
    Json json = Json::parse(*text, nullptr, false);
    if (!json.is_object()) result.unreadable.push_back(path);
    for (const Policy& policy : policies()) {
      if (policy.family != place.family) continue;
      if (const auto isOn = read_policy(policy, json)) result.features[policy.feature] = {isOn, path};
    }
  }
  return result;
}

std::vector<PolicyChange> install_policies(const std::string& root) {
  std::vector<PolicyChange> changes;
  for (const PolicyPlace& place : policy_places()) changes.push_back(install(place, root));
  return changes;
}

std::vector<PolicyChange> remove_policies(const std::string& root) {
  std::vector<PolicyChange> changes;
  for (const PolicyPlace& place : policy_places()) changes.push_back(remove(place, root));
  return changes;
}

}  // namespace orvane
