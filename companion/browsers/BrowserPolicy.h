#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orvane {

// Managed policies are files with which the machine's administrator configures browsers for all users. The policies
// that orvanectl installs switch off what hides host names from the filter: HTTP/3 and, on request, DNS over HTTPS.

// The `root` of the functions below: a prefix of every path, empty for this machine's own files. Tests pass a folder of
// their own.
inline constexpr const char* kThisMachine = "";

enum class BrowserFamily { Chromium, Firefox, Other };

// A folder from which a browser reads policies. A browser of Chromium's family reads every file in it. Firefox reads
// one file, which other programs may have written.
struct PolicyPlace {
  const char* browser;
  BrowserFamily family;
  const char* folder;  // without a trailing slash
  const char* file;    // the file in this folder that install_policies() writes

  std::string path() const;
};

// The folders that browser vendors document. Vivaldi and Opera document none.
std::span<const PolicyPlace> policy_places();

// The content of the policy file that we write.
std::string policy_text(BrowserFamily family, bool withoutDnsOverHttps);

// What the policy files of one browser, ours and others, prescribe. A member has no value if no policy fixes the
// setting; the user may then change it.
struct PolicyInForce {
  std::optional<bool> http3;
  std::string http3File;                    // the file that sets `http3`
  std::optional<std::string> dnsOverHttps;  // "off", "automatic", "secure"
  std::string dnsOverHttpsFile;
  std::vector<std::string> unreadable;  // files that cannot be read or are not JSON objects
};
PolicyInForce policy_in_force(const PolicyPlace& place, const std::string& root);

// What install_policies() or remove_policies() did at one place.
struct PolicyChange {
  enum class Outcome {
    Done,     // written or removed
    Nothing,  // already as wanted
    Foreign,  // left alone: the file differs from everything that we write
    Failed,
  };
  const PolicyPlace* place;
  Outcome outcome;
  std::string reason;  // why it failed; otherwise empty
};

// Writes our file at each place and creates missing folders. Replaces our file if its content differs.
std::vector<PolicyChange> install_policies(const std::string& root, bool withoutDnsOverHttps);

// Removes our files, and the folders that are empty afterwards.
std::vector<PolicyChange> remove_policies(const std::string& root);

}  // namespace orvane
