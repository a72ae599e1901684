#pragma once

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "companion/list/BlockList.h"

namespace orvane {

// Whether the change of a site or of a group's settings from `held` to `wanted` makes the group block less. `wanted` is
// null for a site that is removed.
bool blocks_less(const ListedSite* wanted, const ListedSite& held);
bool blocks_less(const Group& wanted, const Group& held);

// Guards groups of the list against removals: a locked group until its lock ends, a group with a delay for the time of
// the delay. The guard keeps a copy of the blocked sites and the settings of each guarded group:
//
//   the list's file               effect in a locked group     effect in a group with a delay
//   a site is added               at once                      at once
//   a site is removed, suspended
//   or blocks less                when the lock has ended      after the delay
//   the group is enabled, its
//   schedule is removed, its
//   delay gets longer             at once                      at once
//   any other new setting         when the lock has ended      after the delay
//   an exception (in any group)
//   for a site of the group       when the lock has ended      after the delay
//
// If the list's file changes again before a change has an effect, and the new change blocks less than the one before,
// the delay begins anew. A suspension whose end is past is none.
//
// Locks and delays are measured in time for which the machine runs or sleeps, so setting the clock does not change
// them. Not thread-safe.
class ListGuard {
 public:
  struct Now {
    Moment wall;
    std::chrono::seconds running;  // since the start of the machine, sleep included
    std::string start = {};        // differs after each start of the machine; empty if unknown
  };

  // A lock lasts at most this long, whatever the request says: a year, even if it has a 29 February.
  static constexpr std::chrono::seconds kLongestLock = std::chrono::hours(24 * 366);

  // At most this many groups are guarded at the same time. A request for a lock of another group waits.
  static constexpr size_t kMostGroups = 100;
  // At most this many bytes of sites are guarded: about a million sites. Further sites of guarded groups are in force
  // as in the list's file. This keeps the saved text below kLargestInput.
  static constexpr size_t kMostBytes = size_t{64} << 20;
  // The guard remembers the ages of at most this many exceptions. A further exception that would allow a guarded site
  // has no effect.
  static constexpr size_t kMostExceptions = 100000;

  ListGuard(size_t mostBytes = kMostBytes, size_t mostExceptions = kMostExceptions)
      : mostBytes_(mostBytes), mostExceptions_(mostExceptions) {}

  // The guard as a text, from which load() restores it. Locks and delays also run between save() and load(). But if the
  // machine was restarted in between, only the time since its start counts. load() throws InputError for an invalid
  // text.
  std::string save(const Now& now) const;
  void load(std::string_view text, const Now& now);

  // Applies the list's file as it is now: new requests for locks, and the changes that may have an effect now.
  // Returns whether save() must be called.
  bool update(const BlockList& file, const Now& now);

  // When update() must be called again, although the file is the same: on the clock Now::running. Nothing if there is
  // no such moment.
  std::optional<std::chrono::seconds> due() const { return due_; }
  bool isActive() const;  // a group is guarded

  // The list that is in force: the guarded groups as the guard has them, the others as in the file.
  BlockList listInForce(const BlockList& file) const;
  // The guarded groups alone, without exceptions. Valid until update() or load().
  const BlockList& guardedList() const { return held_; }
  // Which groups of `list` are in force. `list` is a list that one of the two functions above has returned. A locked
  // group is in force if its schedule says so for the clock as it is, or for the clock as it would be if nobody had set
  // it since the lock began.
  GroupStates statesOf(const BlockList& list, const Now& now) const;

  // When the group's lock ends, on the clock Now::running; nothing if the group is not locked.
  std::optional<std::chrono::seconds> lockEnd(std::string_view group) const;
  // How many of the file's sites of a guarded group are not guarded, because there are too many.
  uint64_t unguardedSites(std::string_view group) const;
  // Groups that are not guarded because there are too many.
  const std::vector<std::string>& refusedGroups() const { return refusedGroups_; }
  // Whether some exceptions have no effect because there are too many (kMostExceptions).
  bool ignoresExceptions() const { return ignoresExceptions_; }

  using Seconds = std::chrono::seconds;  // on the clock Now::running
  struct PendingChange {
    Seconds moment{0};   // when it may have an effect
    std::string wanted;  // what the file had when it was last read: see wish_of() in ListGuard.cpp
  };
  using Changes = std::map<std::string, PendingChange, std::less<>>;  // by host; "" for the group's settings
  // The removals and other changes of this group that have no effect yet, without exceptions. While the group is
  // locked, they have no effect even after their moment. Valid until update() or load().
  const Changes& pendingChanges(std::string_view group) const;

 private:
  struct Guarded {
    bool hasCopy = false;  // held_ has the group
    std::optional<Seconds> lockEnd;
    Seconds lockBegan{0};
    Seconds clock{0};               // Now::wall minus Now::running when the lock began
    std::optional<Moment> request;  // the last request that update() has applied
    Changes leaving;
    uint64_t unguardedSites = 0;
  };

  struct Update;  // a guarded group while update() runs
  using Updates = std::vector<Update>;

  bool isGuarded(const std::string& name, const Guarded& guarded, const BlockList& file) const;
  void takeRequests(const BlockList& file, const Now& now);
  void updateGroups(const BlockList& file, const Now& now);
  void updateSites(Updates& updates, const BlockList& file, const Now& now);
  void updateSettings(GroupIndex held, Guarded& guarded, const Group* wanted, const Now& now);
  bool mayLeave(Guarded& guarded, const std::string& key, const std::string& wanted, Seconds delay, const Now& now);
  void stays(Guarded& guarded, const std::string& key);
  void release(const std::vector<std::string>& names);
  std::optional<GroupIndex> heldGroup(const std::string& name) const;
  BlockList withHeldGroups(const BlockList& file) const;
  void updateExceptions(const BlockList& file, const Now& now, bool wasActive);
  void noteDue(Seconds moment) { due_ = std::min(due_.value_or(moment), moment); }

  size_t mostBytes_, mostExceptions_;
  std::map<std::string, Guarded, std::less<>> guarded_;
  BlockList held_;  // the blocked sites and the settings of the guarded groups
  std::vector<std::string> refusedGroups_;
  // For each exception, by host and group: since when the list has had this exception and its group has had the same
  // settings.
  std::map<std::string, Seconds> exceptions_;
  std::map<std::string, std::string> exceptionSettings_;    // the settings of each group with exceptions
  std::set<std::pair<std::string, std::string>> heldBack_;  // group and host of the exceptions without effect
  bool ignoresExceptions_ = false;
  std::optional<Seconds> due_;
  bool isChanged_ = false;
};

}  // namespace orvane
