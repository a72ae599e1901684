#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "companion/list/BlockList.h"
#include "companion/list/ListFile.h"
#include "platform/linux/base/Descriptor.h"

namespace orvane {

// What the keeper tells of itself, in a file that it replaces at every change: a JSON object.
struct KeeperState {
  pid_t process = 0;
  Moment started;

  // The list as it was last read.
  std::string listPath;
  ListVersion listVersion;
  uint64_t sites = 0;
  uint64_t names = 0;  // with the usual names, without the suspended
  uint64_t badLines = 0;
  std::vector<std::pair<std::string, Moment>> suspended;  // names
  std::optional<std::string> listError;                   // why it could not be read; the one read before still counts

  // The extension.
  bool connected = false;
  std::optional<ListVersion> sentVersion;  // of the list that it has now; nothing when it has none from us
  uint64_t sentNames = 0;
  std::optional<Moment> sentAt;
  uint64_t changes = 0;                       // its counter when it was last asked
  uint64_t changesOfOthers = 0;               // of these, those since our first that were not ours
  std::optional<std::string> extensionError;  // why it is not connected, or did not take the list
};

// Where the keeper that the service manager runs writes it.
inline constexpr const char* kKeeperStatePath = "/run/orvane-keeper/state";

// The right to write it, which one keeper has at a time: a lock, on a file beside it, for as long as the descriptor is
// open. An empty one where another keeper has it. Throws FileError where no such file can be made.
Descriptor lock_keeper_state(const std::string& path);

// Replaces the file in one step. Only with the lock. Throws FileError.
void write_keeper_state(const std::string& path, const KeeperState& state);

// The state of the keeper that runs now. Nothing where there is none: no file, or nobody who has the lock. Throws
// FileError for a file that cannot be read or is no such state.
std::optional<KeeperState> read_keeper_state(const std::string& path);

// As the file has it.
nlohmann::json to_json(const KeeperState& state);

// Waits until the extension has this version of the list, or a later one, from the keeper.
enum class InForce { Yes, NoKeeper, NoExtension, TimedOut };
InForce wait_until_in_force(const std::string& statePath, const ListVersion& version,
                            std::chrono::milliseconds patience);

}  // namespace orvane
