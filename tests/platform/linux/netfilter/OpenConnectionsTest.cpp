#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>

#include <set>
#include <tuple>

#include "platform/linux/base/ThreadBudget.h"
#include "platform/linux/flow/ScriptedProvider.h"
#include "platform/linux/netfilter/OpenConnections.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

struct Sockets final : FlowOwners {
  std::set<uint64_t> closed;
  std::chrono::nanoseconds searchTime{0};
  bool isOpen(const SocketPair&, uint64_t cookie) override {
    const ThreadBudget budget(searchTime);
    while (!budget.isSpent()) continue;
    return !closed.contains(cookie);
  }
  std::optional<SocketFacts> find(const SocketPair&) override { return std::nullopt; }
  std::optional<SocketFacts> sender(const SocketPair&, uid_t) override { return std::nullopt; }
  Value ownerOf(const SocketPair&, const SocketFacts&) override { return {}; }
  void abort(const SocketPair&, uint64_t) override {}
};

class OpenConnectionsTest : public ::testing::Test {
 protected:
  using Clock = OpenConnections::Clock;
  using Charges = std::vector<std::pair<uid_t, Clock::duration>>;

  void add(std::string name, uint16_t cookie, uid_t user = 1) {
    const uint8_t here[4] = {127, 0, 0, 1};
    connections.add({{IPPROTO_TCP, SocketAddress::v4(here, cookie), SocketAddress::v4(here, 443)},
                     cookie,
                     user,
                     Value::string("owner"),
                     std::move(name)});
  }
  // The calls to the provider after these edits.
  std::string callsAfter(const ListEdits::Edits& edits) {
    connections.plan(edits);
    connections.review(1min);
    EXPECT_FALSE(connections.hasPlans());
    return provider->take().calls;
  }
  // The call to the provider about the next connection.
  std::string next() {
    connections.review(0s);
    return provider->take().calls;
  }
  // The user of each connection that was checked or reviewed since the last call, and the time that this took.
  Charges takeCharges() { return std::exchange(charges, {}); }

  Ref<ScriptedProvider> provider = Ref<ScriptedProvider>::adopt(new ScriptedProvider);
  Sockets sockets;
  std::vector<uint64_t> ended;  // cookies
  Charges charges;
  OpenConnections connections{provider, sockets, [this](const OpenConnection& each) { ended.push_back(each.cookie); },
                              [this](uid_t user, auto time) { charges.emplace_back(user, time); }};
};

const ListEdits::Edits kAll{.all = true, .names = {}};

TEST_F(OpenConnectionsTest, AsksOnlyAboutNamesThatAnEditConcerns) {
  uint16_t cookie = 0;
  for (const char* name : {"a.example", "a.example", "x.a.example", "y.x.a.example", "xa.example", "a.example.x"}) {
    add(name, ++cookie);
  }
  const std::tuple<const char*, std::vector<std::string>, std::string_view> kCases[] = {
      {"one name", {"a.example"}, "new a.example; new a.example; "},
      {"a name and those below", {".a.example"}, "new a.example; new a.example; new x.a.example; new y.x.a.example; "},
      {"an exception", {"!.x.a.example"}, "new x.a.example; new y.x.a.example; "},
      {"two names", {"xa.example", "a.example.x"}, "new a.example.x; new xa.example; "},
      {"names of no connection", {"example", "c", "", ".", "!", "!."}, ""},
  };
  for (const auto& [name, edited, expected] : kCases) EXPECT_EQ(callsAfter({false, edited}), expected) << name;
  const std::string calls = callsAfter(kAll);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), ';'), 6) << calls;
}

TEST_F(OpenConnectionsTest, EndsConnectionsThatTheProviderDropsNow) {
  const std::tuple<const char*, NEFilterNewFlowVerdict, NEFilterDataVerdict, bool, bool> kCases[] = {
      {"allowed", kAllow, kAllowData, false, false},
      {"allowed by its data", kExamine, kAllowData, false, false},
      {"dropped by its data", kExamine, kDropData, false, true},
      {"dropped", kDrop, kAllowData, false, true},
      {"closed", kDrop, kAllowData, true, false},
  };
  for (const auto& [name, newFlow, data, isClosed, ends] : kCases) {
    add("a.example", 7);
    provider->newFlow = newFlow;
    provider->data = data;
    if (isClosed) sockets.closed = {7};
    ended.clear();
    callsAfter(kAll);
    EXPECT_EQ(ended, std::vector<uint64_t>(ends ? 1 : 0, 7)) << name;
    EXPECT_EQ(connections.size(), ends || isClosed ? 0U : 1U) << name;
  }
}

TEST_F(OpenConnectionsTest, ReachesEveryConnectionUnderSteadyEdits) {
  for (const char* name : {"a", "b", "c"}) add(name, static_cast<uint16_t>(*name));
  std::string calls;
  for (int i = 0; i < 3; ++i) {
    connections.plan(kAll);
    calls += next();
  }
  connections.plan({false, {"a"}});
  calls += next() + next();
  EXPECT_EQ(calls, "new a; new b; new c; new a; new a; ") << "an edit of one name comes first";
  EXPECT_EQ(callsAfter({}), "new b; new c; ") << "after the last edit";
}

TEST_F(OpenConnectionsTest, AsksAboutAllAfterTooManyEdits) {
  add("a", 1);
  EXPECT_EQ(callsAfter({false, std::vector<std::string>(OpenConnections::kPlansLimit + 1, "b")}), "new a; ");

  ListEdits edits;
  pollfd descriptor{edits.descriptor(), POLLIN, 0};
  edits.add("b");
  EXPECT_EQ(poll(&descriptor, 1, 0), 1);
  EXPECT_TRUE(edits.take() == (ListEdits::Edits{false, {"b"}}));
  EXPECT_EQ(poll(&descriptor, 1, 0), 0);
  edits.add("b");
  edits.add(std::string(ListEdits::kBytesLimit, 'c'));
  edits.add("b");
  EXPECT_TRUE(edits.take() == kAll);
}

TEST_F(OpenConnectionsTest, BoundsTheConnectionsOfEachUser) {
  add("other", 1, 2);
  for (size_t i = 0; i < OpenConnections::kLimitOfUser + 9; ++i) add(std::to_string(i), static_cast<uint16_t>(i + 2));
  EXPECT_EQ(connections.size(), OpenConnections::kLimitOfUser + 1);
  EXPECT_EQ(callsAfter({false, {"other"}}), "new other; ");
  provider->newFlow = kDrop;
  callsAfter(kAll);
  connections.removeEnded(Clock::now());
  EXPECT_EQ(connections.size(), 0U) << "after all ended";
}

TEST_F(OpenConnectionsTest, FreesConnectionsWhoseSocketsWereClosed) {
  add("kept", 1);
  for (uint16_t cookie = 2; cookie < 10'000; ++cookie) {
    add("a", cookie);
    sockets.closed.insert(cookie - 1U);
    sockets.closed.erase(1);
    connections.removeEnded(Clock::time_point(cookie * 1min));
  }
  // Checks may be late: their limit of processor time includes the time that a hypervisor takes away.
  EXPECT_LE(connections.size(), OpenConnections::kUnchecked + OpenConnections::kChecksAtOnce);
  EXPECT_EQ(callsAfter({false, {"kept"}}), "new kept; ");
}

TEST_F(OpenConnectionsTest, BoundsAndChargesTheTimeOfChecksAndReviews) {
  for (uint16_t cookie = 0; cookie < 2 * OpenConnections::kUnchecked; ++cookie) add("a", cookie, 7);
  sockets.searchTime = 3ms;
  const auto now = Clock::now();
  connections.removeEnded(now);
  Charges charged = takeCharges();
  ASSERT_EQ(charged.size(), 1U) << "a check takes longer than one call may take";
  EXPECT_EQ(charged[0].first, 7U);
  EXPECT_GE(charged[0].second, sockets.searchTime);
  EXPECT_GE(connections.nextChecks().value(), now + 10 * sockets.searchTime) << "a tenth of the time is used up";
  connections.removeEnded(now + 9 * sockets.searchTime);
  EXPECT_EQ(takeCharges().size(), 0U);
  connections.removeEnded(now + 1h);
  EXPECT_EQ(takeCharges().size(), 1U);

  provider->newFlow = kDrop;
  connections.plan(kAll);
  connections.review(1ms);
  charged = takeCharges();
  ASSERT_EQ(charged.size(), 1U) << "a review takes longer than one call may take";
  EXPECT_EQ(charged[0].first, 7U);
  EXPECT_GE(charged[0].second, sockets.searchTime);
}

}  // namespace
}  // namespace orvane
