#pragma once

#include <sys/types.h>

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "companion/subscriptions/SubscriptionList.h"
#include "companion/text/TimeText.h"
#include "platform/files/Descriptor.h"

namespace orvane {

// A copy that is much smaller than the one in force and waits for a person's consent. The copy itself is not stored: it
// is fetched again.
struct WaitingCopy {
  std::string sha256;
  uint64_t names = 0;  // without exceptions
};

struct FetchProgress {
  uint64_t received = 0;  // bytes
  uint64_t total = 0;     // the number of bytes that the server announced; 0 if it did not
};

// What orvane-fetcher knows about one subscription. Everybody may read it, so it does not contain the URL, which may
// contain a secret.
struct SubscriptionState {
  std::string name;

  // The copy in force, which is in the file NAME.list.
  std::string source;  // identifies the URL and the key with which the copy was fetched
  std::string group;
  std::string sha256;  // of the bytes that the server sent
  std::string etag, lastModified;
  std::optional<Moment> changed;   // when the copy came into force
  std::optional<Moment> signedAt;  // the timestamp in the signature's trusted comment
  ListCounts counts;
  bool hasCopy() const { return counts.names + counts.exceptions > 0; }

  std::optional<Moment> checked;     // when the server last confirmed the copy in force
  std::optional<Moment> next;        // the next fetch
  std::string plannedFor;            // identifies the URL, group and key for which `next` was planned
  uint64_t failures = 0;             // since the last fetch that succeeded
  std::optional<std::string> error;  // what is wrong with the last fetch, and what to do
  uint64_t request = 0;              // the number of the last request, which was carried out if `progress` is empty

  std::optional<WaitingCopy> waiting;
  std::optional<FetchProgress> progress;  // of a fetch that goes on now
};

struct FetcherState {
  pid_t process = 0;
  Moment started;
  std::optional<std::string> error;  // why the file with the subscriptions cannot be read
  std::vector<SubscriptionState> subscriptions;

  SubscriptionState* find(std::string_view name);
};

// The folder of the service.
inline constexpr const char* kFetcherPath = "/var/lib/orvane-fetcher";
// The paths of the state file, and of the list of a subscription, in the folder of the service.
std::string fetcher_state_path(const std::string& folder);
std::string subscription_list_path(const std::string& folder, const std::string& name);

// Takes the lock that shows that the fetcher runs. Returns an empty descriptor if another one runs. Throws FileError.
Descriptor lock_fetcher(const std::string& folder);
// False also for users who may not read the lock's file.
bool is_fetcher_running(const std::string& folder);

// Replaces a file of the folder; everybody may read it. Throws FileError.
void write_fetcher_file(const std::string& path, std::string_view text);

// The counts as members of a JSON object.
nlohmann::json to_json(const ListCounts& counts);

void write_fetcher_state(const std::string& folder, const FetcherState& state);
// The state as last written; empty if there is none. Throws FileError if the file cannot be read or is invalid.
FetcherState read_fetcher_state(const std::string& folder);

}  // namespace orvane
