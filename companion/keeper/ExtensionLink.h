#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "companion/client/Client.h"
#include "companion/keeper/KeeperState.h"
#include "companion/list/PackedNames.h"
#include "companion/watch/PathWatch.h"

namespace orvane {

// The keeper's connection to the extension. It reconnects whenever the connection ends, and sends the whole list over
// each new connection. Updates KeeperState's member `connected` and the members after it. Not thread-safe; uses a
// CallTimeout.
//
//   disconnected --- attend(): the socket answers ---> connected, whole list sent
//        ^                                                  |
//        +---- hang-up, no answer, or a failed call --------+
class ExtensionLink {
 public:
  using Clock = std::chrono::steady_clock;

  ExtensionLink(ClientOptions options, KeeperState& state);

  // A descriptor for poll(2), which reports kHangUpEvent (ControlChannel.h) when the extension has closed the
  // connection. -1 if disconnected.
  int connection() const { return client_ ? client_->descriptor() : -1; }
  // A descriptor for poll(2), readable when a socket file may have appeared. -1 if connected.
  int socketWatch() const { return sockets_ ? sockets_->descriptor() : -1; }
  // When attend() must be called again, at the latest.
  Clock::time_point due() const { return due_; }

  // Does nothing before due(). `list`: the names that the extension must hold. It is null if the keeper has not read
  // the list yet; then no list is sent. If disconnected, tries to connect, and then sends the list. If connected, and
  // while edits are undone (see undoEdits), sends the list again after edits of other clients, and sends a list that
  // the extension has refused again, after pauses that grow.
  void attend(const HeldNames* list);
  // From undoEdits(true) to undoEdits(false), attend() undoes the edits of other clients. The protocol has no message
  // that reports edits, so attend() asks for the number of edits twice a second, and more often after an undo.
  // `guarded`: the names that must not be missing. If they are few, an undo adds them first. If the extension does not
  // take the whole list, the extension gets only these names.
  void undoEdits(bool enabled, PackedNames guarded);
  bool undoesEdits() const { return undoesEdits_; }
  // Call when socketWatch() is readable. If a socket file may have appeared, the next attend() tries to connect at
  // once.
  void onSocketEvent();
  // Call when poll(2) reports an event for connection().
  void onHangUp() {
    if (client_) disconnect("it ended the connection");
  }

  // Call when the list has changed from `before` (null for the first list that was read) to `after`. The KeeperState
  // must have the version of `after` already. Also call when the list was read again, but is the same; then a refused
  // list is sent again only after its pause.
  void update(const HeldNames* before, const HeldNames& after);

 private:
  template <class Work>
  std::string attempt(std::chrono::milliseconds timeout, Work work);
  bool connect();
  void send(const HeldNames* before, const HeldNames& after);
  void addGuarded();
  void sendGuarded();
  std::string checkConnection();
  Clock::time_point nextCheck() const;
  bool pausesAfterRefusal() const { return !isInSync_ && Clock::now() < sendWholeAt_; }
  void readChangesCount();
  void recordSent(const HeldNames& list, bool isChanged);
  void logUndone();
  void disconnect(const std::string& reason);
  void scheduleRetry(const std::string& reason);

  ClientOptions options_;
  KeeperState& state_;
  std::unique_ptr<Client> client_;
  std::optional<PathWatch> sockets_;  // has a value only while disconnected
  Clock::time_point due_ = Clock::now();

  // Used while disconnected.
  std::chrono::milliseconds pause_;  // how long to wait before the next attempt to connect
  Clock::time_point lostAt_ = Clock::now();
  std::string lastLoggedReason_;
  bool isUnresponsive_ = false;  // in the last attempt, an extension ran but did not answer

  // Used while connected.
  bool hasConnectedBefore_ = false;
  bool undoesEdits_ = false;
  PackedNames guarded_;
  Clock::time_point sendWholeAt_ = Clock::time_point::min();  // when to send a refused list again
  std::chrono::milliseconds refusalPause_;                    // how long to wait after the next refusal
  Clock::time_point vigilantUntil_ = Clock::time_point::min();
  uint64_t undone_ = 0;  // edits by other clients that were undone, and are not logged yet
  Clock::time_point logUndoneAt_ = Clock::time_point::min();
  std::string loggedSent_;        // what was logged last about a list that the extension has taken
  ListVersion recordedVersion_;   // of the list that the extension has taken last
  bool isInSync_ = false;         // the extension has taken the list that was sent last
  uint64_t expectedChanges_ = 0;  // what the extension's count of edits is if no other client has made edits
};

}  // namespace orvane
