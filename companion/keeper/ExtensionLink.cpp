#include "companion/keeper/ExtensionLink.h"

#include <algorithm>
#include <utility>

#include "companion/client/CallTimeout.h"
#include "companion/client/ControlChannel.h"
#include "companion/keeper/KeeperLog.h"
#include "companion/keeper/ListSync.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

// The pauses between attempts to connect. A new socket file causes an attempt at once. This attempt may fail, because
// the file exists before the extension listens. So the next attempt must follow soon.
constexpr std::chrono::milliseconds kShortestPause = 50ms;
constexpr std::chrono::milliseconds kLongestPause = 5s;

// The time between two reads of the extension's count of edits while other clients' edits must be undone. A client that
// has edited once may edit again. So after an undo, the keeper reads the count more often for kVigilance.
constexpr std::chrono::milliseconds kCheckInterval = 500ms;
constexpr std::chrono::milliseconds kVigilantInterval = 50ms;
constexpr std::chrono::milliseconds kVigilance = 5s;

// A client may edit in a loop. So the undone edits are logged at most once in this time, with their number.
constexpr std::chrono::milliseconds kLogInterval = 60s;

// While edits of other clients are undone: the pauses between attempts to send a list that the extension has refused.
// Each pause is twice as long as the one before, because a list that is too large stays too large until it changes.
constexpr std::chrono::milliseconds kShortestRefusalPause = 500ms;
constexpr std::chrono::milliseconds kLongestRefusalPause = 60s;

// How long to wait for the extension's answer: usually kCallTimeout. If the extension did not answer the previous
// call, the next attempt to connect waits only kShortCallTimeout. Sending a list may take kCallTimeout, plus a
// second for each kNamesPerSecond names.
constexpr std::chrono::milliseconds kCallTimeout = 5s;
constexpr std::chrono::milliseconds kShortCallTimeout = 1s;
constexpr size_t kNamesPerSecond = 20000;

// The longest time that a normal restart of the extension takes. Failures to connect are logged only if the connection
// has been lost for longer than this.
constexpr std::chrono::milliseconds kRestart = 3s;

constexpr const char* kUnresponsive = "the extension does not answer: it hangs, or serves too many clients; restart it";

std::chrono::milliseconds timeout_for(const HeldNames& list) {
  return kCallTimeout + std::chrono::seconds((list.names.size() + list.suspended.size()) / kNamesPerSecond);
}

bool has_same_names(const HeldNames& a, const HeldNames& b) { return a.names == b.names && a.suspended == b.suspended; }

std::string count_of(const HeldNames& list) {
  std::string text = counted(count_blocking(list.names), "name", "names");
  return list.suspended.empty() ? text : text + ", plus " + std::to_string(list.suspended.size()) + " suspended";
}

}  // namespace

ExtensionLink::ExtensionLink(ClientOptions options, KeeperState& state)
    : options_(std::move(options)), state_(state), pause_(kShortestPause), refusalPause_(kShortestRefusalPause) {
  sockets_.emplace(socket_paths(options_));
}

void ExtensionLink::attend(const HeldNames* list) {
  if (Clock::now() < due_) return;
  if (!client_) {
    if (connect() && list != nullptr) send(nullptr, *list);
    return;
  }
  due_ = nextCheck();
  if (std::string failure = checkConnection(); !failure.empty()) return disconnect(failure);
  logUndone();
  const uint64_t edits = state_.changesOfOthers;
  const bool isPaused = pausesAfterRefusal();
  if (list == nullptr || ((isInSync_ || isPaused) && edits == 0)) return;
  if (isPaused && guarded_.size() == 0) return;  // there is nothing to undo the edits with
  if (edits > 0) {
    vigilantUntil_ = Clock::now() + kVigilance;
    addGuarded();
  }
  isPaused ? sendGuarded() : send(nullptr, *list);
  if (edits == 0 || !(isInSync_ || state_.hasOnlyGuarded)) return;
  undone_ += edits;
  logUndone();
  due_ = Clock::now();
}

// Adds the guarded names, with one message for each name. Call this before the whole list is sent, because sending the
// whole list takes longer. For many guarded names this is not true, so the function then does nothing.
void ExtensionLink::addGuarded() {
  if (guarded_.size() == 0 || guarded_.size() > kLargestDifference) return;
  const std::vector<std::string> names(guarded_.begin(), guarded_.end());
  attempt(kCallTimeout, [&](CallTimeout&) { client_->addHostnames(names); });
}

void ExtensionLink::logUndone() {
  if (undone_ == 0 || Clock::now() < logUndoneAt_) return;
  keeper_log(LogLevel::Notice, "a group has a lock or a delay, or a list of the administrator is in force: undoing " +
                                   counted(undone_, "edit", "edits") + " by other clients");
  undone_ = 0;
  logUndoneAt_ = Clock::now() + kLogInterval;
}

void ExtensionLink::undoEdits(bool enabled, PackedNames guarded) {
  guarded_ = std::move(guarded);
  if (enabled == undoesEdits_) return;
  undoesEdits_ = enabled;
  if (!enabled) {
    logUndoneAt_ = Clock::time_point::min();
    logUndone();
  }
  if (client_) due_ = enabled ? Clock::now() : nextCheck();
}

ExtensionLink::Clock::time_point ExtensionLink::nextCheck() const {
  if (!undoesEdits_) return Clock::time_point::max();
  const auto now = Clock::now();
  const bool isVigilant = (isInSync_ || state_.hasOnlyGuarded) && now < vigilantUntil_;
  const auto next = now + (isVigilant ? kVigilantInterval : kCheckInterval);
  return pausesAfterRefusal() ? std::min(next, sendWholeAt_) : next;
}

void ExtensionLink::onSocketEvent() {
  if (!sockets_ || !sockets_->readEvents()) return;
  pause_ = kShortestPause;
  due_ = Clock::now();
}

void ExtensionLink::update(const HeldNames* before, const HeldNames& after) {
  if (!client_) return;
  const bool isChanged = before == nullptr || !has_same_names(*before, after);
  if (isChanged) refusalPause_ = kShortestRefusalPause;
  if (isChanged || !pausesAfterRefusal()) return send(isInSync_ ? before : nullptr, after);
  if (guarded_.size() > 0) sendGuarded();  // the guarded names may have changed
}

// Runs `work`, which calls the extension, with a timeout. Returns the error, or an empty text.
template <class Work>
std::string ExtensionLink::attempt(std::chrono::milliseconds timeout, Work work) {
  CallTimeout limit(timeout);
  if (client_) limit.watch(client_->descriptor());
  try {
    work(limit);
  } catch (const UnresponsiveExtension&) {
    return kUnresponsive;
  } catch (const ClientError& error) {
    return limit.hasExpired() && client_ ? kUnresponsive : error.what();
  }
  return "";
}

bool ExtensionLink::connect() {
  const uint64_t lastSeen = state_.changes;
  std::string failure = attempt(isUnresponsive_ ? kShortCallTimeout : kCallTimeout, [this](CallTimeout& limit) {
    client_ = connect_client(options_);
    limit.watch(client_->descriptor());
    state_.changes = client_->changesCount();
  });
  isUnresponsive_ = failure == kUnresponsive;
  if (!failure.empty()) {
    scheduleRetry(failure);
    return false;
  }
  const bool isRestarted = state_.changes == 0 || state_.changes < lastSeen;
  if (isRestarted || !hasConnectedBefore_) state_.changesOfOthers = 0;
  expectedChanges_ = state_.changes - state_.changesOfOthers;
  keeper_log(LogLevel::Info, !hasConnectedBefore_ ? "connected to the extension"
                             : isRestarted        ? "connected to the extension, which was restarted"
                                                  : "connected to the extension again");
  hasConnectedBefore_ = true;
  isInSync_ = false;
  sendWholeAt_ = Clock::time_point::min();
  refusalPause_ = kShortestRefusalPause;
  loggedSent_.clear();
  state_.connected = true;
  state_.extensionError.reset();
  sockets_.reset();
  pause_ = kShortestPause;
  due_ = nextCheck();
  return true;
}

void ExtensionLink::send(const HeldNames* before, const HeldNames& after) {
  isInSync_ = state_.hasOnlyGuarded = false;
  uint64_t edits = 0;
  std::string failure = attempt(timeout_for(after), [&](CallTimeout&) {
    const uint64_t changes = client_->changesCount();
    // A difference would leave other clients' edits in place. But if the list is the same as before, the edits stay:
    // otherwise two keepers that read their lists again and again would overwrite each other's list.
    const bool isWhole = before == nullptr || needs_whole_list(*before, after) ||
                         (changes != expectedChanges_ && !has_same_names(*before, after));
    edits = isWhole ? send_all(*client_, after) : send_difference(*client_, *before, after);
    // Sending the whole list discards other clients' edits, so counting them then starts again.
    expectedChanges_ = (isWhole ? changes : expectedChanges_) + edits;
    readChangesCount();
    isInSync_ = true;
  });
  if (isInSync_) {
    recordSent(after, edits > 0);
    return;
  }
  // If the call failed because the list was too large to be sent, the connection still works and is kept.
  if (failure == kUnresponsive || !checkConnection().empty()) {
    disconnect(failure);
    return;
  }
  if (state_.extensionError != failure)
    keeper_log(LogLevel::Error, "the extension did not accept the list: " + failure);
  state_.extensionError = failure;
  sendWholeAt_ = Clock::now() + refusalPause_;
  refusalPause_ = std::min(2 * refusalPause_, kLongestRefusalPause);
  if (guarded_.size() > 0) sendGuarded();
}

// Replaces the extension's names by the guarded ones, because the extension has not taken the whole list.
void ExtensionLink::sendGuarded() {
  state_.hasOnlyGuarded = false;
  const std::string failure =
      attempt(kCallTimeout + std::chrono::seconds(guarded_.size() / kNamesPerSecond), [&](auto&) {
        const uint64_t changes = client_->changesCount();
        client_->setHostnames(std::vector<std::string>(guarded_.begin(), guarded_.end()), nullptr);
        expectedChanges_ = changes + 1;
        readChangesCount();
        state_.hasOnlyGuarded = true;
      });
  if (failure == kUnresponsive) return disconnect(failure);
  if (!state_.hasOnlyGuarded) return;
  state_.sentVersion.reset();
  state_.sentNames = count_blocking(guarded_);
  const std::string count = counted(state_.sentNames, "name", "names");
  const std::string text =
      "the extension has only the names of the administrator's lists and of groups with a lock or a delay: " + count;
  if (text != loggedSent_) keeper_log(LogLevel::Notice, text);  // after an undo, it has the same names as before
  loggedSent_ = text;
}

std::string ExtensionLink::checkConnection() {
  return attempt(kCallTimeout, [this](CallTimeout&) { readChangesCount(); });
}

void ExtensionLink::readChangesCount() {
  state_.changes = client_->changesCount();
  state_.changesOfOthers = state_.changes - std::min(state_.changes, expectedChanges_);
}

// `isChanged`: whether a name or a date was sent.
void ExtensionLink::recordSent(const HeldNames& list, bool isChanged) {
  state_.extensionError.reset();
  state_.sentVersion = state_.listVersion;
  state_.sentNames = count_blocking(list.names);
  state_.sentAt = now_in_seconds();
  // After an undo, the extension has the same list as before. After a start, it first has the names of the guarded
  // groups, before the keeper has read a version of the list. These may be all names.
  const std::string count = count_of(list);
  const bool isNew = isChanged && state_.listVersion != recordedVersion_ && !recordedVersion_.empty();
  if (isNew || count != loggedSent_) keeper_log(LogLevel::Info, "the extension has the list: " + count);
  loggedSent_ = count;
  recordedVersion_ = state_.listVersion;
}

void ExtensionLink::disconnect(const std::string& reason) {
  keeper_log(LogLevel::Notice, "lost the extension: " + reason);
  lostAt_ = Clock::now();
  lastLoggedReason_ = reason;
  isUnresponsive_ = reason == kUnresponsive;
  scheduleRetry(reason);
  // Usually the connection is lost because the extension restarts, so try to connect again at once.
  pause_ = kShortestPause;
  due_ = Clock::now();
}

void ExtensionLink::scheduleRetry(const std::string& reason) {
  client_.reset();
  state_.connected = false;
  state_.sentVersion.reset();
  state_.sentNames = 0;
  state_.sentAt.reset();
  state_.extensionError = reason;
  state_.hasOnlyGuarded = false;
  if (sockets_) {
    sockets_->arm();
  } else {
    sockets_.emplace(socket_paths(options_));
  }
  due_ = Clock::now() + pause_;
  pause_ = std::min(2 * pause_, kLongestPause);
  if (reason == lastLoggedReason_ || Clock::now() < lostAt_ + kRestart) return;
  keeper_log(LogLevel::Warning, reason);
  lastLoggedReason_ = reason;
}

}  // namespace orvane
