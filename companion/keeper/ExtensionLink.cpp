#include "companion/keeper/ExtensionLink.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "companion/client/CallTimeout.h"
#include "companion/keeper/KeeperLog.h"
#include "companion/keeper/ListSync.h"
#include "companion/text/Output.h"
#include "platform/linux/control/SocketPath.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

// Between two tries to connect. A new socket's file is seen at once, but a socket is there before somebody listens.
constexpr std::chrono::milliseconds kShortestPause = 50ms;
constexpr std::chrono::milliseconds kLongestPause = 5s;

// Between two looks at the counter, which tell of others' edits, and whether the extension still answers.
constexpr std::chrono::milliseconds kLookEvery = 60s;

// For an extension to answer; less once it is known not to. Many names take their time.
constexpr std::chrono::milliseconds kPatience = 5s;
constexpr std::chrono::milliseconds kShortPatience = 1s;
constexpr size_t kNamesPerSecond = 20000;

// A restart takes less: why the extension cannot be reached meanwhile is of no interest.
constexpr std::chrono::milliseconds kRestart = 2s;

// Why there is no connection to an extension that takes one and says nothing.
constexpr const char* kSilent = "the extension does not answer: it hangs, or serves too many clients; restart it";

std::vector<std::string> socket_paths(const ClientOptions& options) {
  if (!options.socket.empty()) return {std::filesystem::absolute(options.socket).lexically_normal()};
  std::string error;  // connecting says it, too
  return client_socket_paths(options.service, &error);
}

std::chrono::milliseconds limit_for(const HeldNames& list) {
  return kPatience + std::chrono::seconds((list.names.size() + list.suspended.size()) / kNamesPerSecond);
}

std::string count_of(const HeldNames& list) {
  std::string text = counted(list.names.size(), "name", "names");
  return list.suspended.empty() ? text : text + ", besides " + std::to_string(list.suspended.size()) + " suspended";
}

}  // namespace

ExtensionLink::ExtensionLink(ClientOptions options, KeeperState& state)
    : options_(std::move(options)), state_(state), pause_(kShortestPause) {
  sockets_.emplace(socket_paths(options_));
}

void ExtensionLink::attend(const HeldNames* list) {
  if (Clock::now() < due_) return;
  if (client_) {
    due_ = Clock::now() + kLookEvery;
    if (std::string failure = look(); !failure.empty()) lose(failure);
  } else if (connect() && list != nullptr) {
    send(nullptr, *list);
  }
}

void ExtensionLink::socketsHappened() {
  if (!sockets_ || !sockets_->happened()) return;
  pause_ = kShortestPause;
  due_ = Clock::now();
}

void ExtensionLink::update(const HeldNames* before, const HeldNames& after) {
  if (client_) send(inStep_ ? before : nullptr, after);
}

// Calls the extension for no longer than the limit. Gives what went wrong; empty when nothing did.
template <class Work>
std::string ExtensionLink::attempt(std::chrono::milliseconds patience, Work work) {
  CallTimeout limit(patience);
  if (client_) limit.watch(client_->descriptor());
  try {
    work(limit);
  } catch (const UnresponsiveExtension&) {
    return kSilent;
  } catch (const ClientError& error) {
    return limit.passed() && client_ ? kSilent : error.what();
  }
  return "";
}

bool ExtensionLink::connect() {
  const uint64_t seen = state_.changes;
  std::string failure = attempt(isUnresponsive_ ? kShortPatience : kPatience, [this](CallTimeout& limit) {
    client_ = connect_client(options_);
    limit.watch(client_->descriptor());
    state_.changes = client_->changesCount();
  });
  isUnresponsive_ = failure == kSilent;
  if (!failure.empty()) {
    retry(failure);
    return false;
  }
  const bool isAnother = state_.changes == 0 || state_.changes < seen;
  if (isAnother || !metBefore_) state_.changesOfOthers = 0;
  expected_ = state_.changes - state_.changesOfOthers;
  keeper_log(LogLevel::Info, !metBefore_ ? "connected to the extension"
                             : isAnother ? "connected to the extension, which was started anew"
                                         : "connected to the extension again");
  metBefore_ = true;
  inStep_ = false;
  state_.connected = true;
  state_.extensionError.reset();
  sockets_.reset();
  pause_ = kShortestPause;
  due_ = Clock::now() + kLookEvery;
  return true;
}

void ExtensionLink::send(const HeldNames* before, const HeldNames& after) {
  inStep_ = false;
  std::string failure = attempt(limit_for(after), [&](CallTimeout&) {
    const bool whole = before == nullptr || is_sent_whole(*before, after);
    // What others did before goes with what they did it to.
    if (whole) expected_ = client_->changesCount();
    expected_ += whole ? send_all(*client_, after) : send_difference(*client_, *before, after);
    readCounter();
    inStep_ = true;
  });
  if (inStep_) {
    noteSent(after);
    return;
  }
  // The connection is still of use when the list was too large to be sent.
  if (failure == kSilent || !look().empty()) {
    lose(failure);
    return;
  }
  expected_ = state_.changes - state_.changesOfOthers;
  state_.extensionError = failure;
  keeper_log(LogLevel::Error, "the extension has not taken the list: " + failure);
}

std::string ExtensionLink::look() {
  return attempt(kPatience, [this](CallTimeout&) { readCounter(); });
}

void ExtensionLink::readCounter() {
  state_.changes = client_->changesCount();
  state_.changesOfOthers = state_.changes - std::min(state_.changes, expected_);
}

void ExtensionLink::noteSent(const HeldNames& list) {
  state_.extensionError.reset();
  state_.sentVersion = state_.listVersion;
  state_.sentNames = list.names.size();
  state_.sentAt = now_in_seconds();
  keeper_log(LogLevel::Info, "the extension has the list: " + count_of(list));
}

void ExtensionLink::lose(const std::string& reason) {
  keeper_log(LogLevel::Notice, "lost the extension: " + reason);
  lostAt_ = Clock::now();
  toldReason_ = reason;
  isUnresponsive_ = reason == kSilent;
  retry(reason);
  // A restart is the usual reason.
  pause_ = kShortestPause;
  due_ = Clock::now();
}

void ExtensionLink::retry(const std::string& reason) {
  client_.reset();
  state_.connected = false;
  state_.sentVersion.reset();
  state_.sentNames = 0;
  state_.sentAt.reset();
  state_.extensionError = reason;
  if (sockets_) {
    sockets_->arm();
  } else {
    sockets_.emplace(socket_paths(options_));
  }
  due_ = Clock::now() + pause_;
  pause_ = std::min(2 * pause_, kLongestPause);
  if (reason == toldReason_ || Clock::now() < lostAt_ + kRestart) return;
  keeper_log(LogLevel::Warning, reason);
  toldReason_ = reason;
}

}  // namespace orvane
