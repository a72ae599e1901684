#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/linux/base/ThreadBudget.h"
#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/flow/ScriptedProvider.h"
#include "platform/linux/netfilter/QueuedFlows.h"
#include "support/QuicRecords.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

struct Owners final : FlowOwners {
  std::optional<SocketFacts> socket = SocketFacts{1, 2, 3};
  std::chrono::nanoseconds searchTime{0};
  size_t searches = 0;
  std::optional<SocketFacts> find(const SocketPair&) override {
    const ThreadBudget budget(searchTime);
    while (!budget.isSpent()) continue;
    ++searches;
    return socket;
  }
  std::optional<SocketFacts> sender(const SocketPair& pair, uid_t) override { return find(pair); }
  bool isOpen(const SocketPair&, uint64_t cookie) override { return socket && socket->cookie == cookie; }
  Value owner = Value::string("owner");
  Value ownerOf(const SocketPair&, const SocketFacts&) override { return owner; }
  std::vector<uint64_t> aborted;  // the cookies of the sockets
  void abort(const SocketPair&, uint64_t cookie) override { aborted.push_back(cookie); }
};

class QueuedFlowsTest : public ::testing::Test {
 protected:
  using Clock = QueuedFlows::Clock;

  // A packet with its payload at `sequence`. By default all packets belong to the same connection.
  Packet packet(std::string_view payload, uint32_t sequence, uint16_t port = 443, uint8_t protocol = IPPROTO_TCP) {
    const uint8_t here[4] = {127, 0, 0, 1};
    Packet made;
    made.ends = {protocol, SocketAddress::v4(here, 4000), SocketAddress::v4(here, port)};
    made.sequence = sequence;
    made.payload = {reinterpret_cast<const uint8_t*>(payload.data()), payload.size()};
    return made;
  }
  // A packet from the server.
  Packet answer(std::string_view payload) {
    Packet made = packet(payload, 1);
    std::swap(made.ends.local, made.ends.remote);
    return made;
  }
  // Each test begins at the same moment of its own clock, so a pause of the machine changes nothing.
  PacketVerdict judge(const Packet& made, Clock::duration after = 0s) { return flows.judge(made, start + after); }
  PacketVerdict judgeInbound(const Packet& made, bool hasConnection, Clock::duration after = 0s) {
    return flows.judgeInbound(made, hasConnection, start + after);
  }
  // Judges a packet of the socket with this number. Each user's sockets are connected to another port.
  PacketVerdict judgeOf(uid_t user, size_t number, std::string_view payload, uint32_t sequence = 0) {
    owners.socket = SocketFacts{number + 10'000 * user + 1, 2, user};
    Packet made = packet(payload, sequence, static_cast<uint16_t>(80 + user));
    made.ends.local.port = static_cast<uint16_t>(number);
    return judge(made);
  }
  std::string calls() { return provider->take().calls; }

  const Clock::time_point start = Clock::now();
  Ref<ScriptedProvider> provider = Ref<ScriptedProvider>::adopt(new ScriptedProvider);
  Owners owners;
  QueuedFlows flows{provider, owners};
};

using enum PacketVerdict;

constexpr std::string_view kRequest = "GET / HTTP/1.1\r\nHost: a.example\r\n\r\n";

TEST_F(QueuedFlowsTest, AsksAgainForAnotherSocket) {
  EXPECT_EQ(judge(packet(kRequest, 0)), Allowed);
  owners.socket->cookie = 2;
  EXPECT_EQ(judge(packet(kRequest, 9000)), Allowed);
  EXPECT_EQ(calls(), "new a.example; new a.example; ");
  EXPECT_EQ(flows.size(), 1U);
}

TEST_F(QueuedFlowsTest, AsksAgainAfterSomeSecondsUnlessAStreamWasAllowed) {
  Clock::duration later = 1h;
  const std::tuple<const char*, uint8_t, bool, std::string_view> kCases[] = {
      {"an allowed stream", IPPROTO_TCP, false, "new -; "},
      {"a dropped stream", IPPROTO_TCP, true, "new -; new -; "},
      {"a datagram socket", IPPROTO_UDP, false, "new -; new -; "},
  };
  for (const auto& [name, protocol, drops, expectedCalls] : kCases) {
    ++owners.socket->cookie;
    provider->newFlow = drops ? kDrop : kAllow;
    const PacketVerdict expected = drops ? Dropped : Allowed;
    for (int time = 0; time < 2; ++time, later += 10s) {
      EXPECT_EQ(judge(packet("any", 0, 53, protocol), later), expected) << name;
    }
    EXPECT_EQ(calls(), expectedCalls) << name;
  }
}

TEST_F(QueuedFlowsTest, DropsLaterPacketsOfAnEndedConnection) {
  std::vector<OpenConnection> ended;
  OpenConnections connections(
      provider, owners, [&](const OpenConnection& each) { ended.push_back(each); }, [](uid_t, Clock::duration) {});
  flows.addAllowedTo(connections);
  EXPECT_EQ(judge(packet("\x01\x02", 0, 80)), Allowed);
  ++owners.socket->cookie;
  EXPECT_EQ(judge(packet(kRequest, 0)), Allowed);
  flows.recordAllowed();
  EXPECT_EQ(connections.size(), 1U) << "the flow with a name";
  EXPECT_EQ(calls(), "new -; new a.example; ");

  provider->newFlow = kDrop;
  connections.plan({.all = false, .names = {"a.example"}});
  connections.review(1s);
  ASSERT_EQ(ended.size(), 1U);
  EXPECT_EQ(ended.front().owner, Value::string("owner"));
  EXPECT_EQ(calls(), "new a.example; ");
  flows.drop(ended.front(), start);
  EXPECT_EQ(judge(packet("more", 40)), Dropped) << "queued before the edit";
  EXPECT_EQ(judge(packet("more", 40), 1h), Dropped) << "connection tracking forgot the connection";
  EXPECT_EQ(calls(), "");
}

TEST_F(QueuedFlowsTest, GivesTheNameOfAnEndedConversationToTheNextFromItsOwner) {
  const std::vector<std::string> records = quic_records("two_connections");
  ASSERT_EQ(records.size(), 9U);
  const std::string& hello = records[3];  // to a.example
  const std::string later = "\x40 a short header";
  const OpenConnection ended{packet("", 0, 443, IPPROTO_UDP).ends, 1, 3, owners.owner, "ended.example"};
  flows.drop(ended, start);
  EXPECT_EQ(owners.aborted, std::vector{ended.cookie});
  const std::tuple<const char*, Value, uint16_t, std::string, Clock::duration, std::string_view> kCases[] = {
      {"from another socket", owners.owner, 443, later, 1min, "new ended.example; "},
      {"in a new connection", owners.owner, 443, hello, 1min, "new a.example; "},
      {"to another port", owners.owner, 8443, later, 1min, "new -; "},
      {"of another program", Value::string("other"), 443, later, 1min, "new -; "},
      {"after another open conversation was closed", owners.owner, 443, later, 1min, "new ended.example; "},
      {"while another conversation is open", owners.owner, 443, later, 1min, "new -; "},
      {"long after the end", owners.owner, 443, later, 11min, "new -; "},
  };
  provider->newFlow = kDrop;
  OpenConnections connections(provider, owners, nullptr, nullptr);
  flows.addAllowedTo(connections);
  const OpenConnection open{ended.pair, owners.socket->cookie + 6, 3, ended.owner, "open.example"};
  for (const auto& [name, owner, port, datagram, after, expectedCalls] : kCases) {
    ++owners.socket->cookie;
    owners.owner = owner;
    EXPECT_EQ(judge(packet(datagram, 0, port, IPPROTO_UDP), after), Dropped) << name;
    EXPECT_EQ(calls(), expectedCalls) << name;
    connections.add(open);
  }
}

TEST_F(QueuedFlowsTest, RemembersEndedConversationsOfAUserWithFew) {
  const auto end = [&](uid_t user, uint16_t port) {
    flows.drop({packet("", 0, port, IPPROTO_UDP).ends, 1, user, owners.owner, "ended.example"}, start);
  };
  // The calls for the next datagram to the port, which may belong to an ended conversation.
  const auto next = [&](uint16_t port) {
    ++owners.socket->cookie;
    judge(packet("\x40 a short header", 0, port, IPPROTO_UDP));
    return calls();
  };
  end(1, 443);
  end(2, 444);
  for (size_t count = 0; count < QueuedFlows::kEndedLimit; ++count) end(2, 445);
  EXPECT_EQ(next(444), "new ended.example; ") << "many more ended to one port";
  for (uint16_t port = 1000; port < 1000 + QueuedFlows::kEndedLimit; ++port) end(2, port);
  EXPECT_EQ(next(443), "new ended.example; ") << "another user's many more";
  EXPECT_EQ(next(444), "new -; ") << "the user's own oldest";
}

TEST_F(QueuedFlowsTest, ShowsFlowsThatCannotHaveAName) {
  provider->newFlow = kExamine;
  const std::string endless(RequestHostReader::kLimit, 'x');
  const std::tuple<const char*, std::string_view, std::string_view, bool, std::string_view> kCases[] = {
      {"another protocol", "", "\x01\x02", false, "new -; data 0 -; "},
      {"an end in the middle of the head", "GET /", " HT", true, "new -; data 5 -; "},
      {"an end without data", "", "", true, "new -; complete -; "},
      {"a head beyond the limit", "GET /", endless, false, "new -; data 5 -; "},
  };
  for (const auto& [name, begin, payload, ends, expectedCalls] : kCases) {
    ++owners.socket->cookie;
    judge(packet(begin, 0));
    Packet last = packet(payload, static_cast<uint32_t>(begin.size()));
    last.fin = ends;
    EXPECT_EQ(judge(last), Allowed) << name;
    EXPECT_EQ(calls(), expectedCalls) << name;
  }
}

TEST_F(QueuedFlowsTest, WaitsForALostFirstPacket) {
  const std::string tooLong = "GET /" + std::string(FirstFlight::kBytesLimit, 'x');
  enum class Known { Record, Drop, No };
  struct Case {
    const char* name;
    Known known = Known::Record;  // the source of the first byte's sequence number
    std::string_view begin = kRequest.substr(0, 20), end = kRequest.substr(20);
    bool hasFIN = false, answersFirst = false;
    std::vector<PacketVerdict> browser = {Open, Dropped}, other = {Open, Allowed};  // first on `end`, then on `begin`
    std::string_view calls = "new a.example; data 0 a.example; ";
  };
  const Case kCases[] = {
      {"the record has its number"},
      {.name = "the end has a FIN", .hasFIN = true},
      {.name = "the server answers first",
       .answersFirst = true,
       .other = {Allowed, Allowed},
       .calls = "new -; data 0 a.example; "},
      {"it was dropped unjudged", Known::Drop},
      {.name = "nothing has its number", .known = Known::No, .begin = kRequest, .end = "GET /", .calls = "new -; "},
      {.name = "too far ahead to wait for",
       .begin = tooLong,
       .end = kRequest,
       .browser = {Dropped, Dropped},
       .other = {Allowed, Allowed}},
  };
  provider->data = kDropData;
  for (const Case& c : kCases) {
    for (const bool isBrowser : {true, false}) {
      ++owners.socket->cookie;
      provider->newFlow = isBrowser ? kExamine : kAllow;
      const uint32_t first = 0xfffffffa;
      const Packet begin = packet(c.begin, first);
      Packet end = packet(c.end, first + static_cast<uint32_t>(c.begin.size()));
      end.fin = c.hasFIN;
      if (c.answersFirst) judgeInbound(answer("banner"), true);
      if (c.known == Known::Record) owners.socket->firstByte = first;
      if (c.known == Known::Drop) flows.noteUnjudged(begin);
      const PacketVerdict ofEnd = judge(end);
      EXPECT_EQ((std::vector{ofEnd, judge(begin)}), isBrowser ? c.browser : c.other) << c.name;
      const std::string seen = calls();
      EXPECT_EQ(isBrowser ? seen : c.calls, c.calls) << c.name;
      owners.socket->firstByte.reset();
    }
  }
}

TEST_F(QueuedFlowsTest, KeepsAnOpenFlowAsLongAsItsSocket) {
  provider->newFlow = kDrop;
  EXPECT_EQ(judge(packet(kRequest.substr(0, 20), 0)), Open);
  EXPECT_EQ(judge(packet(kRequest.substr(20), 20), 24h), Dropped) << "a server that stalled for a day";
  const uint64_t late = flow_counters().lateQueued;
  flows.queueDrained();
  EXPECT_EQ(judge(packet("more", 40), 24h), Dropped) << "queued after the verdict";
  EXPECT_EQ(flow_counters().lateQueued - late, 1U);
  EXPECT_EQ(calls(), "new a.example; ");

  ++owners.socket->cookie;
  EXPECT_EQ(judge(packet(kRequest.substr(0, 20), 0)), Open);
  owners.socket.reset();
  judge(packet("x", 0, 80), 24h);
  EXPECT_EQ(flows.size(), 1U) << "the socket was closed";
}

TEST_F(QueuedFlowsTest, DividesTheWorkOnExpiredFlowsAmongPackets) {
  const std::vector<std::string> records = quic_records("two_connections");
  for (uint16_t port : {8001, 8002, 8003}) EXPECT_EQ(judge(packet("GET", 0, port)), Open);
  for (uint16_t port : {8001, 8002, 8003}) EXPECT_EQ(judge(packet(records[0], 0, port, IPPROTO_UDP)), Open);
  owners.searchTime = 1ms;
  owners.searches = 0;
  for (size_t number = 1; number <= 6; ++number) {
    EXPECT_EQ(judge(packet(kRequest, 0), 1h), Allowed);
    EXPECT_EQ(owners.searches, number + std::min<size_t>(number, 3)) << "for the packets, and for the open streams";
  }
  EXPECT_EQ(flows.size(), 4U) << "the open streams are left";
}

TEST_F(QueuedFlowsTest, BoundsTheOpenFlowsOfEachUser) {
  auto open = [&](size_t number, uid_t user) { return judgeOf(user, number, "GET"); };
  provider->newFlow = kExamine;
  for (size_t number = 0; number < QueuedFlows::kOpenLimitOfUser; ++number) EXPECT_EQ(open(number, 1), Open);
  EXPECT_EQ(open(QueuedFlows::kOpenLimitOfUser, 1), Dropped) << "one more, of a browser";
  EXPECT_EQ(open(0, 2), Open) << "another user's";
  for (size_t number = QueuedFlows::kOpenLimitOfUser + 1; number < QueuedFlows::kOpenLimit; ++number) {
    EXPECT_EQ(open(number, 3 + static_cast<uid_t>(number % 16)), Open);
  }
  EXPECT_EQ(open(QueuedFlows::kOpenLimit - 1, 2), Open) << "one more than all may have, of a user with few";
  EXPECT_EQ(open(1, 1), Dropped) << "of a user with more than an equal share";
  provider->newFlow = kAllow;
  EXPECT_EQ(open(QueuedFlows::kOpenLimitOfUser + 1, 1), Allowed) << "one more, of another program";
}

TEST_F(QueuedFlowsTest, BoundsTheBytesThatOpenFlowsStore) {
  const std::string large(FirstFlight::kBytesLimit - kRequest.size(), 'x');
  auto store = [&](size_t number, uid_t user) {
    EXPECT_EQ(judgeOf(user, number, kRequest.substr(0, 5)), Open);
    EXPECT_EQ(judgeOf(user, number, large, static_cast<uint32_t>(kRequest.size())), Open);
  };
  auto goOn = [&](size_t number, uid_t user) { return judgeOf(user, number, kRequest.substr(5, 5), 5); };
  const size_t count = QueuedFlows::kStoredLimitOfUser / large.size() + 1;
  provider->newFlow = kExamine;
  store(0, 2);
  for (size_t number = 0; number < count; ++number) store(number, 1);
  EXPECT_EQ(goOn(0, 1), Dropped) << "the user's oldest flow";
  EXPECT_EQ(goOn(count - 1, 1), Open) << "the user's latest flow";
  provider->newFlow = kAllow;
  EXPECT_EQ(goOn(1, 1), Allowed) << "another program's";
  provider->newFlow = kExamine;
  size_t dropped = 0;
  for (uid_t user = 3; user < 8; ++user) {
    for (size_t number = 0; number < count - 2; ++number) store(number, user);
  }
  for (uid_t user = 3; user < 8; ++user) dropped += goOn(0, user) == Dropped ? 1 : 0;
  EXPECT_GT(dropped, 0U) << "all users exceed their limit";
  EXPECT_EQ(goOn(0, 2), Open) << "a user who stores little";
}

TEST_F(QueuedFlowsTest, HoldsASegmentThatFindsNoRoom) {
  provider->newFlow = kExamine;
  const std::string_view rest = kRequest.substr(5);
  EXPECT_EQ(judge(packet(kRequest.substr(0, 5), 0)), Open);
  EXPECT_EQ(judge(packet("far", FirstFlight::kBytesLimit + 5)), Held);
  EXPECT_EQ(judge(packet(rest, 5)), Allowed);
  EXPECT_EQ(calls(), "new -; data 5 a.example; ");
}

TEST_F(QueuedFlowsTest, HoldsTheServersPayloadBackWhileTheNameIsOpen) {
  const Packet served = answer("HTTP/1.1 200 OK"), acknowledgment = answer("");
  Packet synAck = served;
  synAck.syn = synAck.ack = true;

  provider->newFlow = kExamine;
  EXPECT_EQ(judgeInbound(acknowledgment, true), Ignored);
  EXPECT_EQ(judgeInbound(synAck, false), Ignored) << "the client's TCP discards its payload";
  EXPECT_EQ(calls(), "");
  EXPECT_EQ(judgeInbound(served, true), Open) << "ahead of the request";
  EXPECT_EQ(judgeInbound(acknowledgment, false), Open) << "would begin a connection from the server's side";
  EXPECT_EQ(judge(packet(kRequest.substr(0, 20), 0)), Open);
  EXPECT_EQ(judgeInbound(served, true), Open);
  provider->data = kDropData;
  EXPECT_EQ(judge(packet(kRequest.substr(20), 20)), Dropped);
  EXPECT_EQ(judgeInbound(served, true), Dropped);
  EXPECT_EQ(calls(), "new -; data 0 a.example; ");

  // If the program is no browser, its server may speak first.
  ++owners.socket->cookie;
  provider->newFlow = kAllow;
  EXPECT_EQ(judgeInbound(served, true), Allowed);
  EXPECT_EQ(judge(packet("any bytes", 0)), Allowed);
  EXPECT_EQ(calls(), "new -; ");
}

TEST_F(QueuedFlowsTest, LetsAllowedSocketsGoOn) {
  const Packet rest = answer("the rest of an answer");
  provider->newFlow = kExamine;
  flows.allowSocket(owners.socket->cookie);
  EXPECT_EQ(judgeInbound(rest, true), Allowed);
  EXPECT_EQ(judge(packet("the next request", 0)), Allowed);
  EXPECT_EQ(calls(), "");
  for (uint64_t cookie = 0; cookie < QueuedFlows::kSocketsLimit; ++cookie) flows.allowSocket(cookie + 2);
  EXPECT_EQ(judgeInbound(rest, true, 10s), Open) << "forgotten, as there are too many";
  owners.socket.reset();
  EXPECT_EQ(judgeInbound(rest, true), Ignored) << "no socket";
}

TEST_F(QueuedFlowsTest, JudgesHTTP3ByTheNameInTheHello) {
  provider->data = kDropData;
  const std::vector<std::string> records = quic_records("two_connections");
  ASSERT_EQ(records.size(), 9U);
  // The hello to a.example in two parts; a 0-RTT packet; the whole hello, as first sent and after a Retry; the parts of
  // a hello to b.example in another connection of the socket.
  const std::string &first = records[0], &second = records[1], &request = records[2], &whole = records[3],
                    &retried = records[4], &other1 = records[5], &other2 = records[6], &acknowledgment = records[7],
                    &unknownVersion = records[8];
  using Datagrams = std::vector<std::string>;
  using Verdicts = std::vector<PacketVerdict>;
  const std::tuple<const char*, NEFilterNewFlowVerdict, Datagrams, Verdicts, std::string_view> kCases[] = {
      {"a held name", kDrop, Datagrams{first, second, second}, Verdicts{Open, Dropped, Held}, "new a.example; "},
      {"another name", kAllow, Datagrams{first, second, request}, Verdicts{Open, Allowed, Allowed}, "new a.example; "},
      {"a second connection", kAllow, Datagrams{whole, acknowledgment, other1, other2, other1, other2},
       Verdicts{Allowed, Allowed, Open, Allowed, Allowed, Allowed}, "new a.example; new b.example; "},
      {"a browser's two connections by turns", kExamine, Datagrams{first, other1, second, first},
       Verdicts{Open, Open, Held, Dropped}, "new -; data 0 a.example; "},
      {"another program's second connection inside the first", kAllow, Datagrams{first, other1, other2, second, first},
       Verdicts{Open, Open, Allowed, Allowed, Allowed}, "new b.example; new -; "},
      {"a connection after a Retry", kAllow, Datagrams{whole, retried}, Verdicts{Allowed, Allowed},
       "new a.example; new a.example; "},
      {"a name at the data", kExamine, Datagrams{first, second}, Verdicts{Open, Dropped},
       "new a.example; data 0 a.example; "},
      {"a browser's 0-RTT", kExamine, Datagrams{request, first, request, second}, Verdicts{Held, Open, Held, Dropped},
       "new a.example; data 0 a.example; "},
      {"another program's 0-RTT", kAllow, Datagrams{first, request, second}, Verdicts{Open, Held, Allowed},
       "new a.example; "},
      {"a browser's unknown version", kExamine, Datagrams{unknownVersion}, Verdicts{Held}, "new -; "},
      {"another program's unknown version", kAllow, Datagrams{unknownVersion}, Verdicts{Allowed}, "new -; "},
      {"another protocol", kExamine, Datagrams{"other"}, Verdicts{Dropped}, "new -; data 0 -; "},
  };
  for (const auto& [name, newFlow, datagrams, expectedVerdicts, expectedCalls] : kCases) {
    ++owners.socket->cookie;
    provider->newFlow = newFlow;
    Verdicts verdicts;
    for (const std::string& datagram : datagrams) verdicts.push_back(judge(packet(datagram, 0, 443, IPPROTO_UDP)));
    EXPECT_EQ(verdicts, expectedVerdicts) << name;
    EXPECT_EQ(calls(), expectedCalls) << name;
    const bool isDropped = std::ranges::count(expectedVerdicts, Dropped) > 0;
    EXPECT_EQ(std::exchange(owners.aborted, {}), std::vector(isDropped ? 1 : 0, owners.socket->cookie)) << name;
  }
  ++owners.socket->cookie;
  for (int time = 0; time < 200 && !flows.isLooping(); ++time) judge(packet(first, 0, 443, IPPROTO_UDP));
  EXPECT_TRUE(flows.isLooping()) << "the same datagram again and again";
}

TEST_F(QueuedFlowsTest, ShowsDNSQuestionsWithoutAName) {
  provider->newFlow = NEFilterNewFlowVerdict::filterDataVerdictWithFilterInbound(false, 0, true, 4);
  EXPECT_EQ(judge(packet("question", 0, 53, IPPROTO_UDP)), Allowed);
  auto seen = provider->take();
  EXPECT_EQ(seen.calls + seen.bytes, "new -; data 0 -; ques");
  EXPECT_EQ(seen.owner, Value::string("owner"));
  owners.socket.reset();
  EXPECT_EQ(judge(packet(kRequest, 7, 53)), Allowed);
  seen = provider->take();
  EXPECT_EQ(seen.calls + seen.bytes, "new -; data 0 -; GET ");
  EXPECT_TRUE(seen.owner.isNil());
}

}  // namespace
}  // namespace orvane
