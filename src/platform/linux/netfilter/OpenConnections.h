#pragma once

#include <sys/types.h>

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/NetworkExtension.h"
#include "platform/Value.h"
#include "platform/linux/base/ListEdits.h"
#include "platform/linux/base/SocketAddress.h"
#include "platform/linux/netfilter/FlowOwners.h"

namespace orvane {

// An allowed TCP connection or UDP conversation of one socket.
struct OpenConnection {
  SocketPair pair;
  uint64_t cookie;   // the socket's cookie
  uid_t user;        // the socket's user (SocketFacts)
  Value owner;       // the audit token of the process
  std::string name;  // the server's name
};

// The allowed connections that are still open. After an edit of the list, the connections whose names the edit concerns
// are shown to the provider again, each as a new flow. If the provider now drops a connection, the connection is ended.
//
// The connections are sorted by their names, read from the last byte to the first. So the connections of one name are
// neighbours, and so are the connections of all names below one name. After an edit of one name, no other connections
// are read.
//
// The end of a connection is not reported in time: connection tracking can report it, but only two minutes later by
// default, and its messages may be lost. So removeEnded() makes two checks for each connection that was added. A check
// takes the connection that was added or checked longest ago, and removes it if its socket no longer exists. As a
// result, if more than kUnchecked connections are stored, at most about half of them have ended, unless more
// connections are added in a second than removeEnded() can check.
//
// Not thread-safe: belongs to the queue's thread.
class OpenConnections {
 public:
  using Clock = std::chrono::steady_clock;
  using End = std::function<void(const OpenConnection&)>;
  using Charge = std::function<void(uid_t user, Clock::duration time)>;

  // `end` must make the kernel drop the connection's later packets. `charge` gets the time that removeEnded() and
  // review() spend on each connection, and the connection's user.
  OpenConnections(Ref<NEFilterDataProvider> provider, FlowOwners& owners, End end, Charge charge)
      : provider_(std::move(provider)), owners_(owners), end_(std::move(end)), charge_(std::move(charge)) {}

  // Adds a connection. If the limit of its user is then exceeded, forgets a connection of this user; if the limit of
  // all users is exceeded, forgets a connection of any user. The forgotten connection is the one that was added or
  // checked longest ago. No later edit ends the forgotten connection.
  void add(OpenConnection connection);

  // Removes some connections whose sockets were closed. Call it often. One call makes at most kChecksAtOnce checks, and
  // no further check after kCheckTime. Later calls make no checks until kCheckInterval is over, or longer, so that the
  // checks take at most a tenth of the thread's time. A check takes some microseconds, but that of a UDP conversation
  // can take milliseconds if the users together have thousands of UDP sockets.
  void removeEnded(Clock::time_point now);
  // When removeEnded() may make its next checks. Nothing if it has none to make.
  std::optional<Clock::time_point> nextChecks() const {
    return checks_ > 0 && size() > kUnchecked ? std::optional(nextRemoval_) : std::nullopt;
  }

  // Plans to ask about the connections that the edits concern. A name that begins with a dot stands for the name after
  // the dot and for all names below it; with a "!" before the dot, the name is an exception for the same names.
  void plan(const ListEdits::Edits& edits);

  // Asks about planned connections until `time` has passed, but about one connection at least. Edits of one name come
  // before edits of all names.
  void review(Clock::duration time);

  // Whether review() has more to do.
  bool hasPlans() const { return !plans_.empty() || !all_.empty(); }

  // Whether the connection's owner has an open connection to the same address and port under another name. The search
  // looks up one socket at least. If it has found nothing when kCheckTime is over, the result is false.
  bool hasOther(const OpenConnection& connection);

  size_t size() const { return connections_.size(); }

  static constexpr size_t kLimit = 65536, kLimitOfUser = 16384;
  // With at most this number of connections, removeEnded() checks none.
  static constexpr size_t kUnchecked = 1024;
  static constexpr size_t kChecksAtOnce = 32;
  static constexpr std::chrono::milliseconds kCheckTime{1}, kCheckInterval{10};
  // Limit on the ranges in plans_. If edits need more ranges, review() asks about all connections instead.
  static constexpr size_t kPlansLimit = 4096;

 private:
  struct Key {
    std::string reversedName;
    uint64_t cookie = 0;
    SocketPair pair;

    // In the code that the compiler generates here, clang-tidy 14 mistakes a 0 for a null pointer.
    friend auto operator<=>(const Key&, const Key&) = default;  // NOLINT(modernize-use-nullptr)
  };
  struct Entry;
  using Connections = std::map<Key, Entry>;
  using Ages = std::list<Connections::iterator>;  // the connection that was added or checked longest ago comes first
  struct Entry {
    uid_t user;
    Value owner;
    Ages::iterator age;
  };
  // The connections from `next` on whose reversed names are less than `end`; without an `end`, all from `next` on.
  struct Range {
    Key next;
    std::optional<std::string> end;
  };

  void planName(std::string_view name);
  void planAll();
  bool ask(Connections::iterator connection);
  uid_t checkOldest();
  void erase(Connections::iterator connection);

  Ref<NEFilterDataProvider> provider_;
  FlowOwners& owners_;
  End end_;
  Charge charge_;
  Connections connections_;
  Ages ages_;
  std::unordered_map<uid_t, size_t> ofUser_;  // the number of each user's connections
  size_t checks_ = 0;                         // how many checks removeEnded() has to make
  Clock::time_point nextRemoval_{};           // when removeEnded() may make its next checks
  std::deque<Range> plans_;                   // for edits of one name
  std::deque<Range> all_;                     // for edits of all names
};

}  // namespace orvane
