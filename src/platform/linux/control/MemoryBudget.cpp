#include "platform/linux/control/MemoryBudget.h"

#include <algorithm>
#include <utility>

namespace orvane {

// The share whose turn it is. A share that must wait for another session of its own user holds up nobody.
const MemoryBudget::Share* MemoryBudget::next() {
  const Share* chosen = nullptr;
  for (const Share* share : waiting_) {
    if (users_[share->user_].bytes + share->bytes_ > limitOfUser_) continue;
    if (chosen == nullptr || users_[share->user_].turn < users_[chosen->user_].turn) chosen = share;
  }
  return chosen;
}

bool MemoryBudget::Share::take(uint64_t bytes) {
  std::lock_guard lock(budget_.mutex_);
  if (bytes_ == 0) {
    bytes_ = bytes;
    budget_.waiting_.push_back(this);
  }
  if (budget_.next() != this || budget_.bytes_ + bytes > budget_.limit_) return false;
  budget_.waiting_.remove(this);
  User& user = budget_.users_[user_];
  user.bytes += bytes;
  user.turn = ++budget_.turns_;
  budget_.bytes_ += bytes;
  return true;
}

bool MemoryBudget::Share::release() {
  if (bytes_ == 0) return false;
  std::lock_guard lock(budget_.mutex_);
  const uint64_t bytes = std::exchange(bytes_, 0);
  if (budget_.waiting_.remove(this) > 0) return true;
  budget_.users_[user_].bytes -= bytes;
  budget_.bytes_ -= bytes;
  return true;
}

}  // namespace orvane
