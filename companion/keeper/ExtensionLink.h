#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "companion/client/Client.h"
#include "companion/keeper/KeeperState.h"
#include "companion/keeper/PathWatch.h"

namespace orvane {

// The keeper's connection to the extension: made again whenever it ends, and the whole list sent over each new one.
// What there is to tell of it is in the KeeperState, from `connected` on. Not thread-safe; takes what CallTimeout
// takes.
class ExtensionLink {
 public:
  using Clock = std::chrono::steady_clock;

  ExtensionLink(ClientOptions options, KeeperState& state);

  // For poll(2): hung up (POLLRDHUP) when the connection has ended; -1 without one.
  int connection() const { return client_ ? client_->descriptor() : -1; }
  // For poll(2): readable when a socket may have come; -1 while there is a connection.
  int sockets() const { return sockets_ ? sockets_->descriptor() : -1; }
  // When to call attend() at the latest.
  Clock::time_point due() const { return due_; }

  // Does what is due: tries to connect, or asks for the counter. `list` is what the extension is to hold; null as long
  // as that is not known, and nothing is sent.
  void attend(const HeldNames* list);
  // The file of a socket has come or gone: there is no reason to wait any longer.
  void socketsHappened();
  // The connection has hung up.
  void hungUp() {
    if (client_) lose("it ended the connection");
  }

  // The list is no longer `before` (null: was not known), but `after`, of the version in the state.
  void update(const HeldNames* before, const HeldNames& after);

 private:
  template <class Work>
  std::string attempt(std::chrono::milliseconds patience, Work work);
  bool connect();
  void send(const HeldNames* before, const HeldNames& after);
  std::string look();
  void readCounter();
  void noteSent(const HeldNames& list);
  void lose(const std::string& reason);
  void retry(const std::string& reason);

  ClientOptions options_;
  KeeperState& state_;
  std::unique_ptr<Client> client_;
  std::optional<PathWatch> sockets_;  // watched as long as there is no connection
  Clock::time_point due_ = Clock::now();

  // Without a connection.
  std::chrono::milliseconds pause_;  // before the next try
  Clock::time_point lostAt_ = Clock::now();
  std::string toldReason_;       // why there is none, as the log has it already
  bool isUnresponsive_ = false;  // the last time, the extension took a connection and did not answer

  // With one.
  bool metBefore_ = false;
  bool inStep_ = false;    // it holds what was sent last
  uint64_t expected_ = 0;  // the counter, if nobody else edits
};

}  // namespace orvane
