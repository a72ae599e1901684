// Simulates a million machines that fetch one list by FetchPlan with the default interval. Prints how many requests a
// server gets, and how long a change needs until every machine has it.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <vector>

#include "companion/subscriptions/FetchPlan.h"
#include "companion/subscriptions/Subscription.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;
using std::chrono::seconds;

constexpr size_t kMachines = 1'000'000;
constexpr int kDays = 200;  // after which the fetches are spread evenly, although all machines started at once
constexpr Moment kStart{};

std::mt19937_64 generator{1};
double random_share() { return std::uniform_real_distribution<>(0, 1)(generator); }

// The number of requests in each second from a moment on.
class Requests {
 public:
  Requests(Moment first, seconds length) : first_(first), counts_(static_cast<size_t>(length.count())) {}
  void add(Moment moment) {
    const auto second = (moment - first_).count();
    if (second >= 0 && second < static_cast<int64_t>(counts_.size())) ++counts_[static_cast<size_t>(second)];
  }
  void print(const char* what) const {
    uint64_t sum = 0;
    for (uint32_t count : counts_) sum += count;
    std::printf("%-64s %9ju requests, most in a second %7u\n", what, static_cast<uintmax_t>(sum),
                *std::max_element(counts_.begin(), counts_.end()));
  }

 private:
  Moment first_;
  std::vector<uint32_t> counts_;
};

// The machines' next fetches, after kDays.
std::vector<Moment> start_all_at_once(seconds every) {
  std::vector<Requests> days;
  days.reserve(kDays);
  for (int day = 0; day < kDays; ++day) days.emplace_back(kStart + day * 24h, 24h);
  std::vector<Moment> next(kMachines, kStart);
  for (Moment& each : next) {
    for (; each < kStart + kDays * 24h; each = after_success(each, every, random_share())) {
      days[static_cast<size_t>((each - kStart) / 24h)].add(each);
    }
  }
  for (int day : {0, 1, 7, 30, kDays - 1})
    days[static_cast<size_t>(day)].print(("all started at once, day " + std::to_string(day)).c_str());
  return next;
}

void publish_change(std::vector<Moment> next) {
  const Moment published = kStart + kDays * 24h;
  std::sort(next.begin(), next.end());
  std::printf("a change is on half of the machines after %.1f h, on 99 %% after %.1f h, on all after %.1f h\n",
              static_cast<double>((next[kMachines / 2] - published).count()) / 3600,
              static_cast<double>((next[kMachines / 100 * 99] - published).count()) / 3600,
              static_cast<double>((next.back() - published).count()) / 3600);
}

void boot_all(const std::vector<Moment>& next, seconds every, seconds off, const char* what) {
  const Moment boot = kStart + kDays * 24h + off;
  Requests requests(boot, 10min);
  for (Moment each : next) requests.add(after_start(each, boot, every, true, random_share()));
  requests.print(what);
}

// The server answers no request for some time. Counts the requests during this time and in the day after it.
void break_server(const std::vector<Moment>& next, seconds every, bool hasCopies, seconds length, const char* what) {
  const Moment broken = kStart + kDays * 24h, mended = broken + length;
  Requests failed(broken, length), later(mended, 24h);
  for (Moment each : next) {
    for (uint64_t failures = 1; each < mended; ++failures) {
      failed.add(each);
      each = after_failure(each, every, hasCopies, failures, 0s, random_share());
    }
    later.add(each);
  }
  std::printf("%s\n", what);
  failed.print("    while it fails");
  later.print("    the first request of each machine in the day after that");
}

}  // namespace
}  // namespace orvane

int main() {
  using namespace orvane;
  const std::chrono::seconds every = Subscription().every;
  const std::vector<Moment> next = start_all_at_once(every);
  publish_change(next);
  boot_all(next, every, 2h, "all were off for two hours, and boot in the same second");
  boot_all(next, every, 48h, "all were off for two days, and boot in the same second");
  break_server(next, every, true, 1h, "the server fails for an hour");
  break_server(next, every, true, 12h, "the server fails for twelve hours");
  const std::vector<Moment> now(kMachines, kStart + kDays * 24h);
  break_server(now, every, false, 1h, "all are new and subscribe in the same second, and the server fails for an hour");
}
