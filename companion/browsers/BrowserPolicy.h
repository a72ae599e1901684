#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orvane {

// The folder that all paths below stand in, where it is no test's.
inline constexpr const char* kThisMachine = "";

// Files of managed policies with which the machine's administrator switches off in browsers what the filter does not
// see: HTTP/3 and, on request, DNS over HTTPS. All paths here stand below a root folder, "" for the machine's own.

enum class BrowserFamily { Chromium, Firefox, Other };

// One place that browsers read policies from. A browser of Chromium's family reads every file of a folder; Firefox
// reads one file, which we share with whoever else wants something of it.
struct PolicyPlace {
  const char* browser;
  BrowserFamily family;
  const char* folder;  // without a trailing slash
  const char* file;    // ours, in that folder

  std::string path() const;
};

// The places that the browsers' makers document. Vivaldi and Opera document none.
std::span<const PolicyPlace> policy_places();

// What we write there.
std::string policy_text(BrowserFamily family, bool withoutDnsOverHttps);

// What the policies say, ours and others'. Nothing where they leave it to the user.
struct PolicyInForce {
  std::optional<bool> http3;
  std::string http3File;                    // the file that says so
  std::optional<std::string> dnsOverHttps;  // "off", "automatic", "secure"
  std::string dnsOverHttpsFile;
  std::vector<std::string> unreadable;  // files that are no policies: what browsers make of them is not known
};
PolicyInForce policy_in_force(const PolicyPlace& place, const std::string& root);

// What became of one place.
struct PolicyChange {
  enum class Outcome {
    Done,     // written, or removed
    Nothing,  // was as it should be
    Foreign,  // there is a file that is not as we write it: left alone
    Failed,
  };
  const PolicyPlace* place;
  Outcome outcome;
  std::string reason;  // of a failure
};

// Writes our file at each place, with the folders that lead there. One of ours that says something else is replaced.
std::vector<PolicyChange> install_policies(const std::string& root, bool withoutDnsOverHttps);

// Removes our files, and the folders that became empty by it.
std::vector<PolicyChange> remove_policies(const std::string& root);

}  // namespace orvane
