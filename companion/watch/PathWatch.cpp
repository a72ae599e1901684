#include "companion/watch/PathWatch.h"

#include <utility>

#include "companion/watch/PathEvents.h"

namespace orvane {
namespace {

constexpr std::chrono::seconds kLookInterval(2);

}  // namespace

PathWatch::PathWatch(std::vector<std::string> paths) : events_(PathEvents::create(std::move(paths))) { arm(); }

PathWatch::~PathWatch() = default;

int PathWatch::descriptor() const { return events_->descriptor(); }

std::string PathWatch::fault() const { return events_->fault(); }

std::optional<PathWatch::News> PathWatch::news(const std::string& files) {
  const std::string now = fault();
  const bool isFault = !now.empty();
  if (std::exchange(isFaultTold_, isFault) == isFault) return std::nullopt;
  if (!isFault) return News{false, "watches " + files + " again"};
  return News{true, "cannot watch " + files + ", so looks at them every 2 s: " + now};
}

bool PathWatch::readEvents() {
  const bool isRelevant = events_->read();
  scheduleLook();
  return isRelevant;
}

void PathWatch::arm() {
  events_->arm();
  scheduleLook();
}

void PathWatch::scheduleLook() {
  if (fault().empty()) {
    lookAt_ = Clock::time_point::max();
  } else if (lookAt_ == Clock::time_point::max()) {
    lookAt_ = Clock::now() + kLookInterval;
  }
}

bool PathWatch::isLookDue() {
  if (Clock::now() < lookAt_) return false;
  lookAt_ = Clock::time_point::max();
  arm();
  return true;
}

}  // namespace orvane
