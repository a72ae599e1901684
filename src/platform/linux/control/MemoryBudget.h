#pragma once

#include <sys/types.h>

#include <cstdint>
#include <list>
#include <map>
#include <mutex>

namespace orvane {

// An amount of memory that the sessions of all users share. A session that finds too little memory left waits, and the
// users take turns: of those that wait, the user who got memory longest ago is next. So a user who makes many large
// calls delays another user's call by one call. Thread-safe.
class MemoryBudget {
 public:
  // A user has at most `limitOfUser` bytes at a time.
  MemoryBudget(uint64_t limit, uint64_t limitOfUser) : limit_(limit), limitOfUser_(limitOfUser) {}

  // The part of the budget that one session has or waits for. Use an object on one thread.
  class Share {
   public:
    Share(MemoryBudget& budget, uid_t user) : budget_(budget), user_(user) {}
    ~Share() { release(); }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

    // Takes `bytes` from the budget: at most its limits, and never 0. If this returns false, the session waits: call
    // again after a short time, with the same number, until this returns true, or call release().
    bool take(uint64_t bytes);
    // Gives back the bytes, or stops waiting. Returns false if there is nothing to give back.
    bool release();

   private:
    friend class MemoryBudget;
    MemoryBudget& budget_;
    const uid_t user_;
    uint64_t bytes_ = 0;  // what the session has or waits for
  };

 private:
  struct User {
    uint64_t bytes = 0;  // what the user's sessions have
    uint64_t turn = 0;   // when one of them got memory last, in turns of all users
  };
  const Share* next();

  const uint64_t limit_, limitOfUser_;
  std::mutex mutex_;  // guards the members below
  uint64_t bytes_ = 0, turns_ = 0;
  std::map<uid_t, User> users_;
  std::list<const Share*> waiting_;  // in the order of their first calls of take()
};

}  // namespace orvane
