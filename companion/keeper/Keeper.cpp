#include "companion/keeper/Keeper.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "companion/client/ControlChannel.h"
#include "companion/keeper/ExtensionLink.h"
#include "companion/keeper/KeeperHost.h"
#include "companion/keeper/KeeperLog.h"
#include "companion/keeper/KeeperState.h"
#include "companion/keeper/ListSync.h"
#include "companion/keeper/Metrics.h"
#include "companion/keeper/ReadOnlyLists.h"
#include "companion/keeper/ShutdownRequest.h"
#include "companion/list/ListFile.h"
#include "companion/list/ListGuard.h"
#include "companion/list/UnitedNames.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "companion/text/Sha256.h"
#include "companion/text/Version.h"
#include "companion/watch/PathWatch.h"
#include "companion/watch/Timer.h"
#include "platform/files/Descriptor.h"
#include "platform/files/Files.h"
#include "platform/names/Subdomains.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

// The list's file is read when it has not changed for kDebounce, but at the latest kMaxDebounce after the first change.
constexpr std::chrono::milliseconds kDebounce = 30ms;
constexpr std::chrono::milliseconds kMaxDebounce = 1s;

// While the keeper undoes edits of other clients, it rests after each read, for this many times the processor
// time of the read. Otherwise a large list that changes all the time would keep it from undoing edits.
constexpr int kRestFactor = 10;
constexpr std::chrono::seconds kLongestRest = 60s;

// An empty list takes effect only after this time, because editors remove or truncate a file before they write it.
constexpr std::chrono::milliseconds kEmptyDelay = 1s;

// The time between two attempts to write the state file or the guard's file.
constexpr std::chrono::milliseconds kRetryInterval = 2s;

// The kernel's clocks end in the year 2262, but a suspension may end later. So the keeper's timer for the next end of a
// suspension or change of a group is set at most this far ahead, and set again when it fires too early.
constexpr std::chrono::hours kLongestTimer = 24h * 30;

constexpr size_t kBadLinesLogged = 3;

// After a loss of power, a lock lasts at most this much longer.
constexpr std::chrono::milliseconds kGuardSaveInterval = 5min;
constexpr mode_t kGuardMode = 0600;
constexpr mode_t kListInForceMode = 0640;  // the group may read the list, too

constexpr const char* kZonePath = "/etc/localtime";

std::string absolute(const std::string& path) { return std::filesystem::absolute(path).lexically_normal(); }

class Keeper {
 public:
  Keeper(const KeeperOptions& options, Descriptor lock)
      : statePath_(options.statePath),
        guardPath_(options.guardPath),
        lock_(std::move(lock)),
        metrics_(options.statePath),
        shutdown_(filesForOthers()),
        readOnlyLists_(options.dropInsPath, options.subscriptionsPath),
        watch_(pathsToWatch(options.listPath)),
        link_(options.client, state_) {
    state_.process = getpid();
    state_.version = program_version();
    state_.started = now_in_seconds();
    state_.listPath = absolute(options.listPath);
  }

  void run() {
    shutdown_.exitAtOnce(true);
    loadGuard();
    // Commands refuse what a lock forbids, so the first state must have the locks.
    if (guard_.isActive()) enforce(guard_.guardedList(), {});
    publish();
    // Readiness does not depend on the list or the extension.
    notify_service_manager("READY=1");
    // Reading a large list takes long, so send first the names that the members' lists must not delay.
    if (isKnown_) link_.attend(known());
    refreshReadOnlyLists();
    if (readOnlyLists_.hasFixed()) enforceGuarded();
    attend({});
    for (;;) {
      publish();
      const Events events = wait();
      if (shutdown_.isMade()) break;
      attend(events);
    }
    if (guard_.due() || state_.guardError) saveGuard();
    notify_service_manager("STOPPING=1\nSTATUS=Ending");
    shutdown_.removeFiles();
  }

 private:
  std::vector<std::string> pathsToWatch(const std::string& listPath) const {
    std::vector<std::string> paths = readOnlyLists_.paths();
    paths.push_back(absolute(listPath));
    paths.emplace_back(kZonePath);
    return paths;
  }
  // What this keeper writes for others as long as it runs.
  std::vector<std::string> filesForOthers() const {
    if (!lock_) return {};
    return {statePath_, metrics_.path(), list_in_force_path(statePath_)};
  }
  const HeldNames* known() const { return isKnown_ ? &list_ : nullptr; }

  // The entries for poll(2), each named after what it waits for.
  struct Events {
    pollfd shutdown{-1, POLLIN, 0}, files = shutdown, clock = shutdown, guard = shutdown, sockets = shutdown,
                                    connection = shutdown;
  };

  Events wait();
  void attend(const Events& events);
  void lookAtUnwatchedFiles();
  std::string versions() const { return list_versions({state_.listPath, kZonePath}); }
  bool refreshReadOnlyLists();
  void onFileChange();
  Steady::time_point nextRead() const { return std::max(readAt_.value_or(Steady::time_point::max()), restUntil_); }
  void readInTurn();
  void readList();
  void onListError(const std::string& error);
  void enforceGuarded();
  void enforce(const BlockList& list, HeldNames others);
  void enforceOwn(HeldNames own);
  void undoEdits(std::vector<RankedNames> lists);
  HeldNames own() const;
  void take(HeldNames list);
  static Moment timerMoment(const HeldNames& list);
  void describe(const BlockList& list);
  void describeGroups(const BlockList& list, const GroupStates& states, const ListGuard::Now& now);
  void describePending(KeeperState::GroupState& group, const ListGuard::Now& now);
  void updateGuard(const BlockList& list);
  void loadGuard();
  std::string keepUnreadableGuard();
  void saveGuard();
  void publishListInForce(const BlockList& list);
  void onClockChange();
  void onGuardDue();
  void publish();

  const std::string statePath_, guardPath_;
  const Descriptor lock_;  // empty if the state file's folder does not exist
  MetricsFile metrics_;
  ShutdownRequest shutdown_;
  KeeperState state_;
  nlohmann::json writtenState_;  // as last written
  std::string status_;
  bool isUnwritable_ = false;     // the state file could not be written
  bool areListsChanged_ = false;  // readOnlyLists_ has changed since its names were last sent
  bool isKnown_ = false;          // a list has been read

  ReadOnlyLists readOnlyLists_;
  PathWatch watch_;       // of all lists and the time zone
  std::string versions_;  // versions() when the list was last read
  Timer clock_{Timer::Clock::Wall};
  ListGuard guard_;
  Timer guardTimer_{Timer::Clock::Running};
  Steady::time_point saveGuardAt_ = Steady::time_point::max();
  std::string listInForce_;                      // as last written
  std::optional<Steady::time_point> changedAt_;  // the first change of the list's file since the last read
  std::optional<Steady::time_point> emptySince_ = Steady::time_point::min();  // no delay for an empty first list
  std::optional<Steady::time_point> readAt_ = Steady::now();
  Steady::time_point restUntil_ = Steady::time_point::min();  // no read before

  // The names of all lists together. While link_ is in sync, the extension holds the same names. So the keeper needs no
  // copy of what it has sent, which would double the memory.
  HeldNames list_;
  // The names of the machine's list alone, if there are read-only lists; without them, list_ has only these names.
  struct OwnNames {
    PackedNames names;
    HeldNames rest;  // without names
  };
  std::optional<OwnNames> own_;
  PackedNames guarded_;  // the names of guarded groups that are in force
  ReadOnlyList::GroupsInForce groupsInForce_;
  std::string lastLoggedFaults_;
  ExtensionLink link_;
};

Keeper::Events Keeper::wait() {
  const auto now = Steady::now();
  Steady::time_point due = std::min({link_.due(), saveGuardAt_, watch_.lookAt(), nextRead()});
  if (isUnwritable_) due = std::min(due, now + kRetryInterval);
  int timeout = -1;  // wait for an event without a time limit
  if (due != Steady::time_point::max())
    timeout = static_cast<int>(std::max(std::chrono::ceil<std::chrono::milliseconds>(due - now), 0ms).count());
  std::array<pollfd, 6> events{{{shutdown_.descriptor(), POLLIN, 0},
                                {watch_.descriptor(), POLLIN, 0},
                                {clock_.descriptor(), POLLIN, 0},
                                {guardTimer_.descriptor(), POLLIN, 0},
                                {link_.socketWatch(), POLLIN, 0},
                                {link_.connection(), kHangUpEvent, 0}}};
  if (poll(events.data(), events.size(), timeout) <= 0) return {};
  return {events[0], events[1], events[2], events[3], events[4], events[5]};
}

// Reading a large list or calling an extension that hangs takes long. So during this function, a shutdown request ends
// the process at once. That is safe, because the next keeper sends everything again.
void Keeper::attend(const Events& events) {
  shutdown_.exitAtOnce(true);
  if (events.files.revents != 0) onFileChange();
  if (events.clock.revents != 0) onClockChange();
  if (events.guard.revents != 0) onGuardDue();
  if (events.sockets.revents != 0) link_.onSocketEvent();
  if (events.connection.revents != 0) link_.onHangUp();
  lookAtUnwatchedFiles();
  if (Steady::now() >= nextRead()) readInTurn();
  if (Steady::now() >= saveGuardAt_) saveGuard();
  link_.attend(known());
  shutdown_.exitAtOnce(false);
}

bool Keeper::refreshReadOnlyLists() {
  areListsChanged_ = readOnlyLists_.refresh() || areListsChanged_;
  return areListsChanged_;
}

// While a limit of the system keeps PathWatch from watching all files, finds their changes without it.
void Keeper::lookAtUnwatchedFiles() {
  const bool isDue = watch_.isLookDue();
  if (const auto news = watch_.news("all lists"))
    keeper_log(news->isFault ? LogLevel::Warning : LogLevel::Notice, news->text);
  const std::string fault = watch_.fault();
  state_.watchError = fault.empty() ? std::nullopt : std::optional(fault);
  if (isDue && (versions() != versions_ || refreshReadOnlyLists())) readAt_ = Steady::now();
}

void Keeper::onFileChange() {
  if (!watch_.readEvents()) return;
  const auto now = Steady::now();
  if (!changedAt_) changedAt_ = now;
  readAt_ = std::min(now + kDebounce, *changedAt_ + kMaxDebounce);
}

void Keeper::readInTurn() {
  const std::clock_t start = std::clock();
  readList();
  const std::chrono::microseconds used((std::clock() - start) * std::micro::den / CLOCKS_PER_SEC);
  const auto rest = link_.undoesEdits() ? std::min<Steady::duration>(used * kRestFactor, kLongestRest) : 0s;
  restUntil_ = Steady::now() + rest;
  state_.restSeconds = static_cast<uint64_t>(std::chrono::floor<std::chrono::seconds>(rest).count());
}

void Keeper::readList() {
  changedAt_.reset();
  versions_ = versions();
  tzset();  // without this call, the process would go on with the old time zone after a change
  refreshReadOnlyLists();
  readAt_ = readOnlyLists_.due();
  try {
    ListFileContent content = read_list_file(state_.listPath);
    const std::string hash = content.version.empty() ? "" : sha256_text(content.text);
    StoredList stored{BlockList::parse(std::exchange(content.text, {})), content.version};
    if (stored.list.size() == 0) {
      const auto now = Steady::now();
      if (!emptySince_) emptySince_ = now;
      if (now < *emptySince_ + kEmptyDelay) {
        readAt_ = *emptySince_ + kEmptyDelay;
        return;
      }
    } else {
      emptySince_.reset();
    }
    describe(stored.list);
    state_.listVersion = stored.version;
    state_.listSha256 = hash;
    state_.listModified = content.version.empty() ? std::nullopt : std::optional(content.modified);
    state_.listError.reset();
    updateGuard(stored.list);
    if (guard_.isActive()) stored.list = guard_.listInForce(stored.list);
    enforce(stored.list, {});
    publish();  // commands wait for the state, and freeing a large list takes long
  } catch (const std::exception& error) {
    onListError(error.what());
  }
  // Parsing a large list leaves fragmented free memory, which the allocator would keep.
  release_free_memory();
}

// The previous list stays in force. If groups are guarded, their schedules still count, but exceptions have no effect.
void Keeper::onListError(const std::string& error) {
  if (state_.listError != error) keeper_log(LogLevel::Error, error);
  state_.listError = error;
  const auto rereadAt = Steady::now() + kRereadInterval;
  readAt_ = std::min(readAt_.value_or(rereadAt), rereadAt);
  if (!guard_.isActive()) {
    if (areListsChanged_) enforceOwn(own());
    return;
  }
  // An exception must not outlast the schedule of its group.
  HeldNames others = own();
  std::erase_if(others.names, [](const std::string& name) { return name.starts_with(kExceptionMark); });
  enforce(guard_.guardedList(), std::move(others));
}

// For the start: sends the names of the guarded groups and of the read-only lists, without the machine's list.
void Keeper::enforceGuarded() {
  enforce(guard_.guardedList(), {});
  link_.attend(known());
}

// Sends those names of the machine's list that the extension must hold now, the names of `others`, and the names of the
// read-only lists.
void Keeper::enforce(const BlockList& list, HeldNames others) {
  const ListGuard::Now now = current_time();
  const GroupStates states = guard_.statesOf(list, now);
  describeGroups(list, states, now);
  publishListInForce(list);
  HeldNames held = held_names(list, now.wall, states);
  if (!others.names.empty()) {
    std::vector<std::string> names;
    std::set_union(held.names.begin(), held.names.end(), others.names.begin(), others.names.end(),
                   std::back_inserter(names));
    held.names = std::move(names);
  }
  guarded_ = {};
  if (guard_.isActive())
    guarded_ =
        PackedNames(held_names(guard_.guardedList(), now.wall, guard_.statesOf(guard_.guardedList(), now)).names);
  groupsInForce_.clear();
  for (size_t i = 0; i < list.groups().size(); ++i) groupsInForce_[list.groups()[i].name] = states.isInForce[i];
  enforceOwn(std::move(held));
}

// Sends the names of the machine's list and of the read-only lists.
void Keeper::enforceOwn(HeldNames own) {
  std::vector<RankedNames> parts = readOnlyLists_.inForce(room_of_all(own.names), groupsInForce_);
  state_.readOnlyLists = readOnlyLists_.states();
  own_.reset();
  areListsChanged_ = false;
  undoEdits(parts);
  if (parts.empty()) return take(std::move(own));
  own_.emplace();
  own_->names = PackedNames(own.names);
  own.names = {};
  own_->rest = own;
  parts.push_back({Rank::Own, &own_->names});
  own.names = unite(parts, own.suspended);
  std::erase_if(own.suspended,
                [&](const auto& entry) { return std::binary_search(own.names.begin(), own.names.end(), entry.first); });
  take(std::move(own));
}

// Lets the link undo edits of other clients while a group has a lock or a delay, and while a list of the administrator
// has names that the members may not take out of force. Undoes nothing if the machine may have another keeper.
void Keeper::undoEdits(std::vector<RankedNames> lists) {
  std::erase_if(lists, [](const RankedNames& list) { return list.rank != Rank::Fixed; });
  const bool isEnabled = kIsOnlyKeeper && (guard_.isActive() || !lists.empty());
  lists.push_back({Rank::Own, &guarded_});
  std::vector<std::string> names = unite(lists, {});
  // If there is no room for both, the names of the administrator come first.
  if (room_of_all(names) > kMessageRoom) names = unite(std::span(lists).first(lists.size() - 1), {});
  link_.undoEdits(isEnabled, PackedNames(names));
}

HeldNames Keeper::own() const {
  if (!own_) return list_;
  HeldNames own = own_->rest;
  for (std::string_view name : own_->names) own.names.emplace_back(name);
  return own;
}

void Keeper::describeGroups(const BlockList& list, const GroupStates& states, const ListGuard::Now& now) {
  const auto before = std::exchange(state_.groups, {});
  state_.pending.clear();
  for (size_t i = 0; i < list.groups().size(); ++i) {
    const Group& group = list.groups()[i];
    KeeperState::GroupState state{group.name, states.isInForce[i], group.nextChange(now.wall), {}, 0, group.delay};
    if (const auto end = guard_.lockEnd(group.name)) state.lockedUntil = now.wall + (*end - now.running);
    const auto old =
        std::find_if(before.begin(), before.end(), [&](const auto& each) { return each.name == group.name; });
    const bool wasLocked = old != before.end() && old->lockedUntil;
    // The clocks `now.wall` and `now.running` do not tick at the same moment, so the end may differ by a second from
    // the last result for the same lock. Keep that result then.
    if (state.lockedUntil && wasLocked && std::chrono::abs(*state.lockedUntil - *old->lockedUntil) <= 1s)
      state.lockedUntil = old->lockedUntil;
    if (state.lockedUntil && !wasLocked)
      keeper_log(LogLevel::Notice, "the group " + group.name + " is locked until " + time_text(*state.lockedUntil));
    if (!state.lockedUntil && wasLocked)
      keeper_log(LogLevel::Notice, "the lock of the group " + group.name + " has ended");
    state.unguardedSites = guard_.unguardedSites(group.name);
    if (state.unguardedSites > 0 && (old == before.end() || old->unguardedSites == 0))
      keeper_log(LogLevel::Warning, "too many sites in groups with a lock or a delay: not guarded: " +
                                        counted(state.unguardedSites, "site", "sites") + " of the group " + group.name);
    describePending(state, now);
    state_.groups.push_back(std::move(state));
  }
}

// Adds the changes of the group that have no effect yet.
void Keeper::describePending(KeeperState::GroupState& group, const ListGuard::Now& now) {
  const auto& changes = guard_.pendingChanges(group.name);
  group.pendingChanges = changes.size();
  for (const auto& [host, change] : changes) {
    const Moment until = std::max(now.wall + (change.moment - now.running), group.lockedUntil.value_or(now.wall));
    if (host.empty()) {
      group.settingsUntil = until;
    } else if (state_.pending.size() < KeeperState::kMostPending) {
      state_.pending.push_back({group.name, host, until});
    } else {
      break;
    }
  }
}

void Keeper::updateGuard(const BlockList& list) {
  const std::vector<std::string> refused = guard_.refusedGroups();
  const bool ignoredExceptions = guard_.ignoresExceptions();
  const bool isChanged = guard_.update(list, current_time());
  if (!guard_.refusedGroups().empty() && guard_.refusedGroups() != refused)
    keeper_log(LogLevel::Warning, "too many groups have a lock or a delay: at most " +
                                      std::to_string(ListGuard::kMostGroups) +
                                      " can; ignored: " + guard_.refusedGroups().front() + " and " +
                                      std::to_string(guard_.refusedGroups().size() - 1) + " more");
  if (guard_.ignoresExceptions() && !ignoredExceptions)
    keeper_log(LogLevel::Warning, "too many exceptions: those after the first " +
                                      std::to_string(ListGuard::kMostExceptions) +
                                      " have no effect on sites of groups with a lock or a delay");
  const auto due = guard_.due();
  due ? guardTimer_.set(*due) : guardTimer_.stop();
  if (isChanged || (due && saveGuardAt_ == Steady::time_point::max())) saveGuard();
}

void Keeper::loadGuard() {
  std::error_code ignored;
  if (std::filesystem::symlink_status(guardPath_, ignored).type() == std::filesystem::file_type::not_found) return;
  const auto text = read_file_start(guardPath_, kLargestInput + 1, Links::Refuse);
  try {
    if (!text) throw InputError("cannot read the file");
    if (text->size() > kLargestInput) throw InputError("the file is too large");
    guard_.load(*text, current_time());
  } catch (const InputError& error) {
    keeper_log(LogLevel::Error, "locks and delays are lost, and those that the list still has begin again: " +
                                    in_quotes(guardPath_) + ": " + error.what() + ": " + keepUnreadableGuard());
  }
}

// Gives the guard's file another name, because saveGuard() would replace it. Returns a text for the log: the new name,
// or why the file could not be renamed.
std::string Keeper::keepUnreadableGuard() {
  const std::string name = guardPath_ + ".unreadable-" + time_text(now_in_seconds());
  std::error_code error;
  std::filesystem::rename(guardPath_, name, error);
  return error ? "the next save replaces it: " + error.message() : "it is now " + in_quotes(name);
}

// After a loss of power, nobody knows how much time had passed since the last save. So the guard is saved from time to
// time while it measures a lock or a delay.
void Keeper::saveGuard() {
  const std::string name = std::filesystem::path(guardPath_).filename().string() + ".new";
  const auto error = replace_file(guardPath_, name, guard_.save(current_time()), kGuardMode);
  if (!error) {
    state_.guardError.reset();
    saveGuardAt_ = guard_.due() ? Steady::now() + kGuardSaveInterval : Steady::time_point::max();
    return;
  }
  const std::string text = in_quotes(guardPath_) + ": " + error.message();
  if (state_.guardError != text)
    keeper_log(LogLevel::Error,
               "cannot save locks and delays: " + text + ": they end with this process: check the folder");
  state_.guardError = text;
  saveGuardAt_ = Steady::now() + kRetryInterval;
}

// Writes the list that is in force, for commands such as `orvanectl try`, which may not read the guard's file.
void Keeper::publishListInForce(const BlockList& list) {
  state_.isGuarded = lock_ && guard_.isActive();
  std::string text = state_.isGuarded ? list.text() : "";
  if (text == listInForce_) return;
  listInForce_ = std::move(text);
  const std::string path = list_in_force_path(statePath_);
  if (!state_.isGuarded) {
    unlink(path.c_str());
  } else if (const auto error = replace_file(path, std::filesystem::path(path).filename().string() + ".new",
                                             listInForce_, kListInForceMode)) {
    keeper_log(LogLevel::Warning, "cannot write: " + in_quotes(path) + ": " + error.message());
  }
}

// Updates the counts in the state, and logs the first bad lines.
void Keeper::describe(const BlockList& list) {
  state_.sites = list.blockingSize();
  state_.badLines = list.badLines().size();
  std::string faults;
  for (size_t i = 0; i < std::min(list.badLines().size(), kBadLinesLogged); ++i) {
    const auto& bad = list.badLines()[i];
    faults += "; line " + std::to_string(bad.line) + ": " + in_quotes(bad.text) + ": " + bad.fault;
  }
  if (!faults.empty() && faults != lastLoggedFaults_)
    keeper_log(LogLevel::Warning, counted(state_.badLines, "bad line", "bad lines") + " of the list ignored" + faults);
  lastLoggedFaults_ = faults;
}

void Keeper::take(HeldNames list) {
  clock_.set(timerMoment(list).time_since_epoch());
  link_.update(known(), list);
  list_ = std::move(list);
  isKnown_ = true;
  state_.names = count_blocking(list_.names);
  state_.suspendedNames = list_.suspended.size();
  state_.suspended.clear();
  std::copy_n(list_.suspended.begin(), std::min(list_.suspended.size(), KeeperState::kMostSuspensions),
              std::back_inserter(state_.suspended));
}

Moment Keeper::timerMoment(const HeldNames& list) {
  const Moment latest = now_in_seconds() + kLongestTimer;
  return std::min(list.nextChange.value_or(latest), latest);
}

void Keeper::onClockChange() {
  const bool wasSet = clock_.wasSet();
  if (wasSet) keeper_log(LogLevel::Notice, "the clock was set");
  const Moment now = now_in_seconds();
  const bool isDue = list_.nextChange && *list_.nextChange <= now;
  clock_.set((isDue ? now + kLongestTimer : timerMoment(list_)).time_since_epoch());
  // Only the list's file has the sites of groups that were not in force, and the suspensions that had ended before the
  // clock was set back.
  if (wasSet || isDue) readAt_ = Steady::now();
}

void Keeper::onGuardDue() {
  guardTimer_.wasSet();
  readAt_ = Steady::now();
}

void Keeper::publish() {
  std::string status = !state_.connected    ? "Waiting for the extension"
                       : state_.sentVersion ? counted(state_.sentNames, "name", "names") + " sent"
                                            : "Connected, without a list";
  if (state_.suspendedNames > 0) status += ", " + std::to_string(state_.suspendedNames) + " suspended";
  if (status != status_) notify_service_manager("STATUS=" + status);
  status_ = std::move(status);
  if (!lock_) return;
  metrics_.write(state_);
  nlohmann::json state = to_json(state_);
  if (state == writtenState_) return;
  writtenState_ = std::move(state);
  try {
    write_keeper_state(statePath_, state_);
    isUnwritable_ = false;
  } catch (const FileError& error) {
    if (!isUnwritable_) keeper_log(LogLevel::Warning, error.what());
    isUnwritable_ = true;
    writtenState_ = nullptr;  // so that the next call tries again
  }
}

}  // namespace

int run_keeper(const KeeperOptions& options) {
  Descriptor lock;
  try {
    lock = lock_keeper_state(options.statePath);
    if (!lock) {
      print_error("cannot keep the list: another keeper has its state in " + in_quotes(options.statePath) +
                  ": end that one, or name another file with --state");
      return kFailed;
    }
  } catch (const FileError& error) {
    // If the state file's folder exists but this keeper may not write to it, the folder belongs to another keeper.
    // This keeper must not run beside the other one, so it ends.
    std::error_code ignored;
    if (std::filesystem::exists(std::filesystem::path(absolute(options.statePath)).parent_path(), ignored)) {
      print_error(std::string(error.what()));
      return kFailed;
    }
    keeper_log(LogLevel::Warning, std::string("running without a state file: ") + error.what());
  }
  Keeper(options, std::move(lock)).run();
  return kDone;
}

}  // namespace orvane
