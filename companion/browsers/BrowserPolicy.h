#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orvane {

// Managed policies are files with which the machine's administrator configures browsers for all users. The policies
// that orvanectl installs switch off the browser features that hide host names from the filter.

// A browser feature that can hide the names of some hosts from the filter.
enum class HidingFeature {
  EncryptedHello,     // Encrypted Client Hello (RFC 9849): the hello shows only the name of the hosting service
  SharedConnections,  // one HTTP/2 connection for several names (RFC 9113, section 9.1.1). Only Firefox has a policy
                      // against it
};
inline constexpr std::array kHidingFeatures = {HidingFeature::EncryptedHello, HidingFeature::SharedConnections};

// A value for each feature.
template <class Value>
class PerFeature {
 public:
  Value& operator[](HidingFeature feature) { return values_[static_cast<size_t>(feature)]; }
  const Value& operator[](HidingFeature feature) const { return values_[static_cast<size_t>(feature)]; }

 private:
  std::array<Value, kHidingFeatures.size()> values_{};
};

// The `root` of the functions below: a prefix of every path, empty for this machine's own files. Tests pass a folder of
// their own.
inline constexpr const char* kThisMachine = "";

enum class BrowserFamily { Chromium, Firefox, Other };

// A folder from which a browser reads policies. A browser of Chromium's family reads every file in the folder. Firefox
// reads one file, which other programs may have written.
struct PolicyPlace {
  std::string browser;
  BrowserFamily family;
  std::string folder;   // without a trailing slash
  std::string file;     // the file in this folder that install_policies() writes
  std::string parent;   // we create and remove only folders below `parent`; if `parent` is missing, we install nothing
  std::string flatpak;  // the application ID of the Flatpak that reads this folder; empty if no Flatpak does

  std::string path() const;
};

// The policy folders that browsers, or their packages, document. Vivaldi and Opera document no policy folder.
std::span<const PolicyPlace> policy_places();

// Whether browsers of the family have a policy for the feature.
bool has_policy(BrowserFamily family, HidingFeature feature);

// The content of the policy file that we write.
std::string policy_text(BrowserFamily family);

// The part of this content that switches the feature off, on one line.
std::string policy_against(HidingFeature feature, BrowserFamily family);

// What a policy prescribes for a feature.
struct FeaturePolicy {
  std::optional<bool> isOn;  // no value if no policy fixes the setting; the user may then change it
  std::string file;          // the file that fixes the setting
};

// What the policy files of one browser prescribe, whether we or others wrote the files.
struct PolicyInForce {
  PerFeature<FeaturePolicy> features;
  std::vector<std::string> unreadable;  // files that cannot be read or are not JSON objects
  bool isForeign = false;               // install_policies() leaves the file at the place alone
};
PolicyInForce policy_in_force(const PolicyPlace& place, const std::string& root);

// What install_policies() or remove_policies() did at one place.
struct PolicyChange {
  enum class Outcome {
    Done,     // written or removed
    Nothing,  // nothing had to be done
    Foreign,  // left alone: the file differs from everything that we write
    Failed,
  };
  const PolicyPlace* place;
  Outcome outcome;
  std::string reason;  // why the change failed; otherwise empty
};

// Writes our file at each place, and creates missing folders.
std::vector<PolicyChange> install_policies(const std::string& root);

// Removes our files, and the folders that are empty afterwards.
std::vector<PolicyChange> remove_policies(const std::string& root);

}  // namespace orvane
