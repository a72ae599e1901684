#include "platform/linux/proxy/ProxyPlaces.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <iterator>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace orvane {

void ProxyPlace::setReview(std::function<bool()> isAllowed) {
  std::lock_guard lock(reviewMutex_);
  isAllowed_ = std::move(isAllowed);
}

ProxyPlace* ProxyPlaces::take(uid_t user, Clock::time_point now) {
  Descriptor stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  std::lock_guard lock(mutex_);
  const auto ended =
      std::count_if(ended_.begin(), ended_.end(), [user](const auto& each) { return each.user_ == user; });
  if (isStopping_ || !stop || static_cast<size_t>(ended) >= kEndedLimit) return nullptr;
  while (open_.size() >= limit_) end(longestIdleOfLargestUser(user));
  return &open_.emplace_back(user, std::move(stop), now);
}

void ProxyPlaces::leave(ProxyPlace* place) {
  std::lock_guard lock(mutex_);
  const auto isPlace = [place](const ProxyPlace& each) { return &each == place; };
  if (open_.remove_if(isPlace) == 0) ended_.remove_if(isPlace);
  left_.notify_all();
}

void ProxyPlaces::endIdle(Clock::duration time, Clock::time_point now) {
  std::lock_guard lock(mutex_);
  for (auto place = open_.begin(); place != open_.end();) {
    const auto next = std::next(place);
    if (now - place->lastBytes_.load(std::memory_order_relaxed) >= time) end(place);
    place = next;
  }
}

void ProxyPlaces::review() {
  std::lock_guard lock(mutex_);
  for (auto place = open_.begin(); place != open_.end();) {
    const auto next = std::next(place);
    std::unique_lock reviewLock(place->reviewMutex_);
    const bool isAllowed = place->isAllowed_();
    reviewLock.unlock();
    if (!isAllowed) end(place);
    place = next;
  }
}

void ProxyPlaces::endAll(Clock::duration time) {
  std::unique_lock lock(mutex_);
  isStopping_ = true;
  while (!open_.empty()) end(open_.begin());
  left_.wait_for(lock, time, [this] { return ended_.empty(); });
}

void ProxyPlaces::end(Places::iterator place) {
  eventfd_write(place->stop(), 1);
  ended_.splice(ended_.end(), open_, place);
}

ProxyPlaces::Places::iterator ProxyPlaces::longestIdleOfLargestUser(uid_t newUser) {
  std::unordered_map<uid_t, size_t> sizes{{newUser, 1}};
  for (const ProxyPlace& place : open_) ++sizes[place.user_];
  return std::min_element(open_.begin(), open_.end(), [&sizes](const ProxyPlace& left, const ProxyPlace& right) {
    return std::tuple(sizes[right.user_], left.lastBytes_.load()) <
           std::tuple(sizes[left.user_], right.lastBytes_.load());
  });
}

}  // namespace orvane
