#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <utility>

#include "platform/files/Descriptor.h"

namespace orvane {

// A place for one of the proxy's connections.
class ProxyPlace {
 public:
  using Clock = std::chrono::steady_clock;

  ProxyPlace(uid_t user, Descriptor stop, Clock::time_point now)
      : user_(user), stop_(std::move(stop)), lastBytes_(now) {}

  // An eventfd(2) that is readable when the connection must end.
  int stop() const { return stop_.get(); }

  // Call this when the connection has passed bytes on. Thread-safe.
  void recordBytes(Clock::time_point now = Clock::now()) { lastBytes_.store(now, std::memory_order_relaxed); }

  // From now on, ProxyPlaces::review() calls `isAllowed`, on the thread that calls review(), and ends the connection if
  // the result is false. Thread-safe.
  void setReview(std::function<bool()> isAllowed);

 private:
  friend class ProxyPlaces;

  const uid_t user_;
  const Descriptor stop_;
  std::atomic<Clock::time_point> lastBytes_;
  std::mutex reviewMutex_;  // guards isAllowed_
  std::function<bool()> isAllowed_ = [] { return true; };
};

// The places for a proxy's connections; the number of places is limited. If all places are taken, a new connection
// still gets a place, so that no user can keep the other users out. To free a place, take() chooses the user with the
// most connections (the new connection is counted), and ends the connection of this user that has passed no bytes for
// the longest time. So a user loses a place only to a user with fewer connections, or to a new connection of the same
// user.
//
// When a connection is ended, its place is free at once, but its thread may go on for some time, for example while it
// looks up a name. While a user has kEndedLimit such threads, further connections of this user are refused.
//
// Thread-safe.
class ProxyPlaces {
 public:
  using Clock = ProxyPlace::Clock;

  explicit ProxyPlaces(size_t limit) : limit_(limit) {}

  // Returns a place for a connection of this user. The connection has the place until leave(). Null if the connection
  // is refused.
  ProxyPlace* take(uid_t user, Clock::time_point now = Clock::now());
  void leave(ProxyPlace* place);

  // Ends the connections that have passed no bytes for this time.
  void endIdle(Clock::duration time, Clock::time_point now = Clock::now());

  // Ends the connections whose `isAllowed` (see ProxyPlace::setReview) now returns false. Meanwhile, take() and leave()
  // wait.
  void review();

  // Ends all connections, and refuses new ones from now on. Waits for the threads of the ended connections, for at most
  // `time`.
  void endAll(Clock::duration time);

  // Limit on the threads of one user's ended connections.
  static constexpr size_t kEndedLimit = 256;

 private:
  using Places = std::list<ProxyPlace>;

  void end(Places::iterator place);
  Places::iterator longestIdleOfLargestUser(uid_t newUser);

  const size_t limit_;
  std::mutex mutex_;  // guards the members below
  std::condition_variable left_;
  Places open_, ended_;
  bool isStopping_ = false;
};

}  // namespace orvane
