#include "companion/browsers/BrowserPolicy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>

#include "platform/linux/base/Files.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr size_t kPolicyLimit = size_t{1} << 20;
constexpr const char* kOurFile = "orvane-se.json";
constexpr const char* kHttp3Preference = "network.http.http3.enable";

// Sources: Google's "Chrome Browser quick start (Linux)", Chromium's "Linux Quick Start" (Ubuntu's builds read the
// second folder below), and the vendors' pages on policies for Edge, Brave and Firefox.
constexpr std::array kPlaces = {
    PolicyPlace{"Chromium", BrowserFamily::Chromium, "/etc/chromium/policies/managed", kOurFile},
    PolicyPlace{"Chromium of Ubuntu", BrowserFamily::Chromium, "/etc/chromium-browser/policies/managed", kOurFile},
    PolicyPlace{"Google Chrome", BrowserFamily::Chromium, "/etc/opt/chrome/policies/managed", kOurFile},
    PolicyPlace{"Microsoft Edge", BrowserFamily::Chromium, "/etc/opt/edge/policies/managed", kOurFile},
    PolicyPlace{"Brave", BrowserFamily::Chromium, "/etc/brave/policies/managed", kOurFile},
    PolicyPlace{"Firefox", BrowserFamily::Firefox, "/etc/firefox/policies", "policies.json"},
};

// The folders that we may create or remove for a place, the innermost first: all folders of the place's path except
// /etc and /etc/opt, which belong to the system.
std::vector<std::string> folders_of(const PolicyPlace& place, const std::string& root) {
  std::vector<std::string> folders;
  for (fs::path folder = place.folder; folder != "/etc" && folder != "/etc/opt"; folder = folder.parent_path()) {
    folders.push_back(root + folder.string());
  }
  return folders;
}

enum class Found { Nothing, Ours, Foreign };

// A file is ours if it is byte for byte what we write. A symbolic link is never ours, whatever it points to.
Found find_file(const PolicyPlace& place, const std::string& path, std::string& text) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT || errno == ENOTDIR ? Found::Nothing : Found::Foreign;
  auto content = read_file_start(path, kPolicyLimit, Links::Refuse);
  if (!content) return Found::Foreign;
  text = std::move(*content);
  bool ours = text == policy_text(place.family, false) || text == policy_text(place.family, true);
  return ours ? Found::Ours : Found::Foreign;
}

// Creates the folders of a place. Returns the reason of a failure, or an empty text. chmod() undoes the umask, because
// the browsers of all users must be able to read the folders.
std::string make_folders(const PolicyPlace& place, const std::string& root) {
  std::vector<std::string> folders = folders_of(place, root);
  std::error_code error;
  fs::create_directories(fs::path(folders.back()).parent_path(), error);
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

PolicyChange install(const PolicyPlace& place, const std::string& root, bool withoutDnsOverHttps) {
  const std::string path = root + place.path(), wanted = policy_text(place.family, withoutDnsOverHttps);
  std::string text;
  Found found = find_file(place, path, text);
  if (found == Found::Foreign) return {&place, PolicyChange::Outcome::Foreign, {}};
  if (found == Found::Ours && text == wanted) return {&place, PolicyChange::Outcome::Nothing, {}};
  std::string reason = make_folders(place, root);
  if (reason.empty()) {
    // The temporary file is beside the folder, because Chromium reads every file in the folder as a policy.
    const std::string temporary = "../.orvane-se.new-" + std::to_string(::getpid());
    if (std::error_code error = replace_file(path, temporary, wanted, 0644)) reason = path + ": " + error.message();
  }
  if (reason.empty()) return {&place, PolicyChange::Outcome::Done, {}};
  remove_empty_folders(place, root);
  return {&place, PolicyChange::Outcome::Failed, reason};
}

PolicyChange remove(const PolicyPlace& place, const std::string& root) {
  const std::string path = root + place.path();
  std::string text;
  Found found = find_file(place, path, text);
  if (found == Found::Nothing) return {&place, PolicyChange::Outcome::Nothing, {}};
  if (found == Found::Foreign) return {&place, PolicyChange::Outcome::Foreign, {}};
  if (::unlink(path.c_str()) != 0) {
    return {&place, PolicyChange::Outcome::Failed, path + ": " + std::strerror(errno)};
  }
  remove_empty_folders(place, root);
  return {&place, PolicyChange::Outcome::Done, {}};
}

// The member of nested JSON objects to which the names lead, the outermost name first. Null when it does not exist.
const Json* member(const Json& value, std::initializer_list<const char*> names) {
  const Json* found = &value;
  for (const char* name : names) {
    if (!found->is_object()) return nullptr;
    auto it = found->find(name);
    if (it == found->end()) return nullptr;
    found = &*it;
  }
  return found;
}

void read_chromium_policies(const Json& json, const std::string& path, PolicyInForce& result) {
  if (const Json* quic = member(json, {"QuicAllowed"}); quic != nullptr && quic->is_boolean()) {
    result.http3 = quic->get<bool>();
    result.http3File = path;
  }
  if (const Json* mode = member(json, {"DnsOverHttpsMode"}); mode != nullptr && mode->is_string()) {
    result.dnsOverHttps = mode->get<std::string>();
    result.dnsOverHttpsFile = path;
  }
}

void read_firefox_policies(const Json& json, const std::string& path, PolicyInForce& result) {
  const Json* http3 = member(json, {"policies", "Preferences", kHttp3Preference});
  // For a preference, Firefox accepts a bare value, which counts as locked, or an object with a value and a status.
  const Json* value = http3 != nullptr && http3->is_object() ? member(*http3, {"Value"}) : http3;
  const Json* status = http3 != nullptr ? member(*http3, {"Status"}) : nullptr;
  const bool locked = http3 != nullptr && (!http3->is_object() || (status != nullptr && *status == "locked"));
  if (locked && value != nullptr && value->is_boolean()) {
    result.http3 = value->get<bool>();
    result.http3File = path;
  }
  const Json* enabled = member(json, {"policies", "DNSOverHTTPS", "Enabled"});
  const Json* lockedHttps = member(json, {"policies", "DNSOverHTTPS", "Locked"});
  if (enabled != nullptr && enabled->is_boolean() && lockedHttps != nullptr && *lockedHttps == true) {
    result.dnsOverHttps = enabled->get<bool>() ? "automatic" : "off";
    result.dnsOverHttpsFile = path;
  }
}

std::vector<std::string> policy_files(const PolicyPlace& place, const std::string& root) {
  if (place.family == BrowserFamily::Firefox) return {root + place.path()};
  std::vector<std::string> files;
  std::error_code error;
  for (fs::directory_iterator it(root + place.folder, error), end; !error && it != end; it.increment(error)) {
    std::error_code ignored;
    if (it->is_regular_file(ignored)) files.push_back(it->path().string());
  }
  // If several files have a setting, Chromium 156 uses the file whose name sorts last.
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

std::string PolicyPlace::path() const { return std::string(folder) + '/' + file; }

std::span<const PolicyPlace> policy_places() { return kPlaces; }

std::string policy_text(BrowserFamily family, bool withoutDnsOverHttps) {
  Json policies = Json::object();
  if (family == BrowserFamily::Firefox) {
    policies["Preferences"][kHttp3Preference] = {{"Value", false}, {"Status", "locked"}};
    if (withoutDnsOverHttps) policies["DNSOverHTTPS"] = {{"Enabled", false}, {"Locked", true}};
    policies = {{"policies", policies}};
  } else {
    policies["QuicAllowed"] = false;
    if (withoutDnsOverHttps) policies["DnsOverHttpsMode"] = "off";
  }
  return policies.dump(2) + '\n';
}

PolicyInForce policy_in_force(const PolicyPlace& place, const std::string& root) {
  PolicyInForce result;
  for (const std::string& path : policy_files(place, root)) {
    auto text = read_file_start(path, kPolicyLimit, Links::Follow);
    if (!text) {
      std::error_code error;
      if (fs::exists(path, error)) result.unreadable.push_back(path);
      continue;
    }
    Json json = Json::parse(*text, nullptr, false);
    if (!json.is_object()) {
      result.unreadable.push_back(path);
    } else if (place.family == BrowserFamily::Firefox) {
      read_firefox_policies(json, path, result);
    } else {
      read_chromium_policies(json, path, result);
    }
  }
  return result;
}

std::vector<PolicyChange> install_policies(const std::string& root, bool withoutDnsOverHttps) {
  std::vector<PolicyChange> changes;
  changes.reserve(kPlaces.size());
  for (const PolicyPlace& place : kPlaces) changes.push_back(install(place, root, withoutDnsOverHttps));
  return changes;
}

std::vector<PolicyChange> remove_policies(const std::string& root) {
  std::vector<PolicyChange> changes;
  changes.reserve(kPlaces.size());
  for (const PolicyPlace& place : kPlaces) changes.push_back(remove(place, root));
  return changes;
}

}  // namespace orvane
