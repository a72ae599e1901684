#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "companion/list/BlockList.h"
#include "companion/list/ListFile.h"
#include "platform/files/Descriptor.h"

namespace orvane {

// The keeper's state, which it writes to a file as a JSON object whenever something changes.
struct KeeperState {
  pid_t process = 0;
  std::string version;  // of the keeper's program
  Moment started;

  // The list as last read.
  std::string listPath;
  ListVersion listVersion;
  std::optional<Moment> listModified;  // the time of the file's last change; nothing if there is no file
  std::string listSha256;              // of the file's text, in hexadecimal
  // None of the counts of sites and names includes exceptions.
  uint64_t sites = 0;
  uint64_t names = 0;  // how many names the extension must hold now; suspended names are not counted
  uint64_t badLines = 0;
  uint64_t suspendedNames = 0;
  // The first kMostSuspensions of the suspended names, and when their suspension ends. The state must stay small,
  // because the keeper writes it after each change, and each command that waits for the keeper reads it.
  std::vector<std::pair<std::string, Moment>> suspended;
  static constexpr size_t kMostSuspensions = 100;
  struct GroupState {
    std::string name;
    bool isInForce = false;
    std::optional<Moment> nextChange;  // when isInForce changes next
    std::optional<Moment> lockedUntil;
    uint64_t pendingChanges = 0;            // how many changes in the file have no effect yet
    std::chrono::seconds delay{0};          // the delay in force
    std::optional<Moment> settingsUntil{};  // until when the settings in force stay, although the file has others
    uint64_t unguardedSites = 0;  // how many of its sites a lock or a delay does not cover, because there are too many
  };
  std::vector<GroupState> groups;
  // The first kMostPending of the sites that a group still blocks, although the file no longer blocks them there.
  struct PendingSite {
    std::string group, host;
    Moment until;
  };
  std::vector<PendingSite> pending;
  static constexpr size_t kMostPending = 100;
  bool isGuarded = false;  // the list that is in force, at list_in_force_path(), may differ from the list's file
  std::optional<std::string> listError;  // why reading failed; the previous list stays in force
  // Why the system reports no changes of some of the files, so that the keeper looks at them every 2 s.
  std::optional<std::string> watchError;

  std::optional<std::string> guardError;  // why locks and delays could not be saved: they end with the keeper
  uint64_t restSeconds = 0;               // how long the keeper rests after it has read the lists, rounded down

  // The read-only lists: drop-ins first, each kind in the order of the files' names.
  struct ListState {
    std::string path;
    bool isDropIn = true;
    bool isSuspendable = false;
    bool isInForce = false;  // its names are among those that the extension must hold
    uint64_t names = 0;
    uint64_t badLines = 0;
    std::optional<Moment> modified;    // the time of the file's last change
    std::string sha256;                // of the file's text, in hexadecimal
    std::optional<std::string> error;  // why reading failed, or why the list is not in force
    bool operator==(const ListState&) const = default;
  };
  std::vector<ListState> readOnlyLists;

  // What the keeper knows about the extension.
  bool connected = false;
  std::optional<ListVersion> sentVersion;  // the version of the list that the extension has from this keeper
  uint64_t sentNames = 0;
  std::optional<Moment> sentAt;
  uint64_t changes = 0;                       // the extension's count of edits when last read
  uint64_t changesOfOthers = 0;               // of these, edits by other clients since the keeper sent the whole list
  std::optional<std::string> extensionError;  // why there is no connection, or why the list was not accepted
  // The extension has not accepted the list, and has only the names that must not be missing: those of drop-ins that
  // are not suspendable and, if there is room for both, those of groups with a lock or a delay.
  bool hasOnlyGuarded = false;

  // Whether the keeper sends the names of this list.
  bool sends(const ListState& list) const {
    return list.isInForce && (!hasOnlyGuarded || (list.isDropIn && !list.isSuspendable));
  }
};

// The path of a file beside the state file, to which the keeper writes the list that is in force, in the format of the
// machine's list. The file exists only while KeeperState::isGuarded is set.
std::string list_in_force_path(const std::string& statePath);

// Takes the lock on the file `path`.lock, so that only one keeper at a time writes the state. Returns a descriptor that
// holds the lock while the descriptor is open, or an empty descriptor if another keeper has the lock. Throws FileError
// if the lock's file cannot be created.
Descriptor lock_keeper_state(const std::string& path);

// Replaces the state file atomically. The caller has the lock. Throws FileError.
void write_keeper_state(const std::string& path, const KeeperState& state);

// The state of the running keeper. Nothing if no keeper runs, which means that the file is missing or that no process
// has the lock. Throws FileError if the file cannot be read or is invalid.
std::optional<KeeperState> read_keeper_state(const std::string& path);

// The JSON object that write_keeper_state() writes.
nlohmann::json to_json(const KeeperState& state);

// Adds to `state` the edits that the extension has received since the keeper last read the extension's count of edits.
// `changes`: the count from the extension, which the caller must read before it reads the state.
void add_later_changes(KeeperState& state, uint64_t changes);

// Waits until the keeper has sent the list in this `version`, or in a later version, to the extension. Returns at once
// if no keeper runs, or if the keeper has read the list but has no connection to the extension. `timeout`: without the
// keeper's rest. While it waits, calls waiting() at least twice a second, if given. Throws FileError.
enum class InForce { Yes, NoKeeper, NoExtension, TimedOut };
InForce wait_until_in_force(const std::string& statePath, const ListVersion& version, std::chrono::milliseconds timeout,
                            const std::function<void()>& waiting = nullptr);

}  // namespace orvane
