#include "platform/linux/netfilter/OpenConnections.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "platform/linux/base/ThreadBudget.h"
#include "platform/linux/flow/FilterSession.h"
#include "platform/linux/flow/LinuxFlow.h"

namespace orvane {
namespace {

std::string reversed(std::string_view text) { return {text.rbegin(), text.rend()}; }

}  // namespace

void OpenConnections::add(OpenConnection connection) {
  Key key{reversed(connection.name), connection.cookie, connection.pair};
  const auto [made, isNew] = connections_.try_emplace(std::move(key));
  made->second.owner = std::move(connection.owner);
  if (!isNew) return;
  made->second.user = connection.user;
  made->second.age = ages_.insert(ages_.end(), made);
  ++ofUser_[connection.user];
  if (size() > kUnchecked) checks_ = std::min(checks_ + 2, 2 * size());
  if (ofUser_[connection.user] > kLimitOfUser) {
    // The search takes long if other users have thousands of older connections. But its time counts as the time of this
    // connection's user (PacketBacklog), so other users do not wait for it.
    erase(*std::find_if(ages_.begin(), ages_.end(), [&](auto each) { return each->second.user == connection.user; }));
  }
  if (size() > kLimit) erase(ages_.front());
}

void OpenConnections::plan(const ListEdits::Edits& edits) {
  if (connections_.empty()) return;
  if (edits.all) return planAll();
  for (const std::string& name : edits.names) planName(name);
  if (plans_.size() > kPlansLimit) planAll();
}

void OpenConnections::planName(std::string_view name) {
  // An edit of the exception "!.NAME" concerns the same hosts as an edit of ".NAME".
  if (name.starts_with("!.")) name.remove_prefix(1);
  const bool withSubdomains = name.starts_with('.');
  std::string begin = reversed(withSubdomains ? name.substr(1) : name);
  if (withSubdomains) {
    // Reversed, each name below this name begins with `begin + '.'`. '/' is the next character after '.', so the range
    // ends at `begin + '/'`.
    plans_.push_front({{begin + '.', 0, {}}, begin + '/'});
  }
  std::string end = begin + '\0';  // the next string in the order of bytes
  plans_.push_front({{std::move(begin), 0, {}}, std::move(end)});
}

// If a review of all connections is under way, it goes on to the last connection, and then from the first connection to
// its present position. If it began again at the first connection at once, frequent edits would keep the last
// connections from being asked about.
void OpenConnections::planAll() {
  plans_.clear();
  Key next = all_.empty() ? Key() : std::move(all_.front().next);
  std::string end = next.reversedName + '\0';
  all_ = {{std::move(next), std::nullopt}, {Key(), std::move(end)}};
}

void OpenConnections::review(Clock::duration time) {
  Clock::time_point begin = Clock::now();
  const Clock::time_point stop = begin + time;
  while (hasPlans()) {
    std::deque<Range>& ranges = plans_.empty() ? all_ : plans_;
    Range& range = ranges.front();
    auto next = connections_.lower_bound(range.next);
    while (next != connections_.end() && (!range.end || next->first.reversedName < *range.end)) {
      const auto connection = next++;
      const uid_t user = connection->second.user;
      if (!ask(connection)) erase(connection);
      const Clock::time_point end = Clock::now();
      charge_(user, end - std::exchange(begin, end));
      if (end < stop) continue;
      if (next == connections_.end()) {
        ranges.pop_front();
      } else {
        range.next = next->first;
      }
      return;
    }
    ranges.pop_front();
  }
}

// Shows the connection to the provider again. If the provider drops the connection now, ends it and returns false.
bool OpenConnections::ask(Connections::iterator connection) {
  const Key& key = connection->first;
  const int32_t type = key.pair.protocol == IPPROTO_TCP ? SOCK_STREAM : SOCK_DGRAM;
  auto flow = LinuxSocketFlow::create(connection->second.owner, key.pair.remote.host(), key.pair.remote.port, type);
  flow->setRemoteHostname(reversed(key.reversedName));
  if (FilterSession(provider_, flow).openFlow() != FilterSession::State::Dropped) return true;
  // Another socket may have these addresses and ports by now; the connection of that socket must not be ended.
  if (owners_.isOpen(key.pair, key.cookie)) {
    end_({key.pair, key.cookie, connection->second.user, connection->second.owner, reversed(key.reversedName)});
  }
  return false;
}

bool OpenConnections::hasOther(const OpenConnection& connection) {
  const ThreadBudget budget(kCheckTime);
  bool isLate = false;
  const std::string name = reversed(connection.name);
  return std::ranges::any_of(connections_, [&](const auto& each) {
    const auto& [key, entry] = each;
    return key.pair.remote == connection.pair.remote && key.pair.protocol == connection.pair.protocol &&
           entry.owner == connection.owner && key.reversedName != name && !std::exchange(isLate, budget.isSpent()) &&
           owners_.isOpen(key.pair, key.cookie);
  });
}

void OpenConnections::removeEnded(Clock::time_point now) {
  if (size() <= kUnchecked) checks_ = 0;  // a review may have removed connections
  if (checks_ == 0 || now < nextRemoval_) return;
  const ThreadBudget budget(kCheckTime);
  std::chrono::nanoseconds used{0};
  for (size_t i = 0; i < kChecksAtOnce && checks_ > 0 && used < kCheckTime; ++i) {
    const uid_t user = checkOldest();
    checks_ = size() > kUnchecked ? checks_ - 1 : 0;
    const auto before = std::exchange(used, budget.used());
    charge_(user, used - before);
  }
  nextRemoval_ = now + std::max<Clock::duration>(kCheckInterval, 10 * used);
}

// Checks the connection that was added or checked longest ago, and removes it if it has ended. Returns its user.
uid_t OpenConnections::checkOldest() {
  const auto oldest = ages_.front();
  const uid_t user = oldest->second.user;
  if (owners_.isOpen(oldest->first.pair, oldest->first.cookie)) {
    ages_.splice(ages_.end(), ages_, ages_.begin());
  } else {
    erase(oldest);
  }
  return user;
}

void OpenConnections::erase(Connections::iterator connection) {
  if (const auto user = ofUser_.find(connection->second.user); --user->second == 0) ofUser_.erase(user);
  ages_.erase(connection->second.age);
  connections_.erase(connection);
}

}  // namespace orvane
