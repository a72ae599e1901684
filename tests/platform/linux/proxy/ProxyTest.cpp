#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <future>
#include <memory>
#include <tuple>

#include "platform/linux/base/SocketIO.h"
#include "platform/linux/flow/ScriptedProvider.h"
#include "platform/linux/proxy/Proxy.h"
#include "platform/linux/proxy/ProxyPlaces.h"
#include "platform/linux/sockets/ConnectionOwner.h"
#include "support/Sockets.h"

namespace orvane {

// Returns the local address's port in place of a token, to show which side the proxy passes as the local one.
Value audit_token_of_socket_owner(const sockaddr* local, const sockaddr*) {
  return Value::number(ntohs(reinterpret_cast<const sockaddr_in*>(local)->sin_port));
}

std::optional<uid_t> user_of_socket(const sockaddr*, const sockaddr*) { return 1; }

namespace {

using namespace std::literals;
using NewFlow = NEFilterNewFlowVerdict;
using Data = NEFilterDataVerdict;

class ProxyTest : public testing::Test {
 protected:
  void start(NEFilterAction action) {
    ASSERT_EQ(proxy.start(provider, NEFilterSettings::initWithRules({}, action)), std::nullopt);
  }

  Peer client(const std::string& request) {
    Peer peer(proxy.port());
    peer.send(request);
    return peer;
  }
  Peer tunnel(const std::string& host, uint16_t port) {
    return client("CONNECT " + host + ":" + std::to_string(port) + " HTTP/1.1\r\n\r\n");
  }

  Ref<ScriptedProvider> provider = Ref<ScriptedProvider>::adopt(new ScriptedProvider);
  Proxy proxy{0};
};

TEST_F(ProxyTest, CarriesOutVerdicts) {
  std::string arrived;
  auto server = std::make_unique<Server>([&](Peer& peer) {
    peer.send("banner\n");
    std::string text = peer.read();
    arrived += text;
    if (text == "break") return reset_connection(std::move(peer.socket));
    peer.send(text);
  });
  start(NEFilterAction::FilterData);
  const Data allow = Data::allowVerdict(), drop = Data::dropVerdict();
  const struct {
    const char* name;
    NewFlow newFlow;
    Data data, complete;
    std::string sent, calls, status, reply;
    int error;  // the errno of the client's last read
  } kCases[] = {
      {"allowed", NewFlow::allowVerdict(), drop, drop, "one", "new localhost; ", "200", "one", 0},
      {"allowed, reset by the server", NewFlow::allowVerdict(), drop, drop, "break", "new localhost; ", "200", "",
       ECONNRESET},
      {"dropped", NewFlow::dropVerdict(), allow, allow, "two", "new localhost; ", "403", "blocks LocalHost", 0},
      {"allowed by data", kExamine, allow, drop, "three", "new localhost; data 0 localhost; ", "200", "three", 0},
      {"dropped by data", kExamine, drop, allow, "four", "new localhost; data 0 localhost; ", "200", "", ECONNRESET},
      {"allowed at the end", kExamine, drop, allow, "", "new localhost; complete localhost; ", "200", "", 0},
      {"dropped at the end", kExamine, allow, drop, "", "new localhost; complete localhost; ", "200", "", ECONNRESET},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    provider->newFlow = c.newFlow;
    provider->data = c.data;
    provider->complete = c.complete;
    Peer peer = tunnel("LocalHost", server->port());
    EXPECT_EQ(peer.read("\r\n\r\n").substr(9, 3), c.status);
    EXPECT_EQ(c.status == "200" ? peer.read("\n") : "banner\n", "banner\n") << "the server's data is held";
    peer.send(c.sent);
    peer.endSending();
    EXPECT_NE(peer.read().find(c.reply), std::string::npos);
    EXPECT_EQ(peer.error, c.error);
    auto seen = provider->take();
    EXPECT_EQ(seen.calls, c.calls);
    EXPECT_EQ(seen.owner, Value::number(port_of(peer.socket)));
  }
  server.reset();
  EXPECT_EQ(arrived, "onebreakthree");
}

TEST_F(ProxyTest, ReadsTheServerNameOfATunnelToAnAddress) {
  Server server([](Peer& peer) {
    for (char byte = 0; recv(peer.socket.get(), &byte, 1, 0) > 0;) peer.send({byte});
  });
  start(NEFilterAction::FilterData);
  provider->newFlow = kExamine;
  Peer peer = tunnel("127.0.0.1", server.port());
  peer.read("\r\n\r\n");
  const std::string bytes = "GET / HTTP/1.1\r\nhost: Held.Example.:80\r\n\r\n";
  for (size_t at = 0; at < bytes.size(); at += 20) {
    ASSERT_TRUE(peer.send(bytes.substr(at, 20)));
    std::this_thread::sleep_for(2ms);
  }
  EXPECT_EQ(peer.read(bytes), bytes);
  EXPECT_EQ(provider->take().calls, "new -; data 0 held.example; ");
}

class ProxyPlacesTest : public testing::Test {
 protected:
  using Clock = ProxyPlaces::Clock;

  bool isEnded(const ProxyPlace* place) {
    pollfd entry{place->stop(), POLLIN, 0};
    return poll(&entry, 1, 0) == 1;
  }

  ProxyPlaces places{4};
  const Clock::time_point start = Clock::now();
};

TEST_F(ProxyPlacesTest, EndsTheLongestIdleConnectionOfTheUserWithMost) {
  const uid_t kGreedy = 1, kOther = 2;
  ProxyPlace* other = places.take(kOther, start);  // of all connections, idle for the longest time
  ProxyPlace* used = places.take(kGreedy, start + 1s);
  ProxyPlace* idle = places.take(kGreedy, start + 2s);
  ProxyPlace* last = places.take(kGreedy, start + 3s);
  used->recordBytes(start + 4s);
  const std::tuple<const char*, uid_t, ProxyPlace*> kCases[] = {
      {"the other user", kOther, idle}, {"the greedy user", kGreedy, last}, {"a third user", 3, other}};
  for (const auto& [newUser, user, ended] : kCases) {
    EXPECT_FALSE(isEnded(ended)) << newUser;
    EXPECT_NE(places.take(user, start + 5s), nullptr) << newUser;
    EXPECT_TRUE(isEnded(ended)) << newUser;
  }
  EXPECT_FALSE(isEnded(used));
}

TEST_F(ProxyPlacesTest, RefusesAUserWhoseEndedConnectionsStay) {
  std::vector<ProxyPlace*> taken;
  while (ProxyPlace* place = places.take(1)) taken.push_back(place);
  EXPECT_EQ(taken.size(), 4 + ProxyPlaces::kEndedLimit);
  EXPECT_NE(places.take(2), nullptr);
  for (int i = 0; i < 2; ++i) places.leave(taken[static_cast<size_t>(i)]);
  EXPECT_NE(places.take(1), nullptr);
}

TEST_F(ProxyPlacesTest, EndsIdleConnections) {
  ProxyPlace *idle = places.take(1, start), *used = places.take(1, start);
  used->recordBytes(start + 1s);
  places.endIdle(2s, start + 2s);
  EXPECT_TRUE(isEnded(idle));
  EXPECT_FALSE(isEnded(used));
}

TEST_F(ProxyTest, EndsIdleTunnels) {
  const Descriptor server = listen_on_loopback();
  Proxy limited(0, {8, 1s});
  ASSERT_EQ(limited.start(provider, NEFilterSettings::initWithRules({}, NEFilterAction::Allow)), std::nullopt);
  Peer idle(limited.port());
  idle.send("CONNECT 127.0.0.1:" + std::to_string(port_of(server)) + " HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(idle.read().starts_with("HTTP/1.1 200"));
  EXPECT_EQ(idle.error, 0);
}

TEST_F(ProxyTest, SaysWhyItRefuses) {
  const std::string closedPort = std::to_string(port_of(listen_on_loopback()));
  start(NEFilterAction::Allow);
  const std::tuple<std::string, std::string, std::string> kCases[] = {
      {"CONNECT 127.0.0.1:" + closedPort + " HTTP/1.1\r\n\r\n", "502", "Connection refused"},
      {"GET http://name.invalid/ HTTP/1.1\r\n\r\n", "502", "cannot be resolved"},
      {"CONNECT localhost:" + std::to_string(proxy.port()) + " HTTP/1.1\r\n\r\n", "403", "itself"},
      {"GET http://a.example/ HTTP/1.1\r\nX: " + std::string(200000, 'x') + "\r\n\r\n", "431", "too large"},
      {"POST http://127.0.0.1/ HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", "400", "body"},
  };
  for (const auto& [request, status, reason] : kCases) {
    Peer peer = client(request);
    std::string reply = peer.read();
    EXPECT_EQ(reply.substr(0, 12), "HTTP/1.1 " + status) << request.substr(0, 80);
    EXPECT_NE(reply.find(reason), std::string::npos) << reply;
    EXPECT_EQ(peer.error, 0) << request.substr(0, 80);
  }
}

TEST_F(ProxyTest, ForwardsOnlyOneRequest) {
  std::promise<std::string> received;
  Server server([&](Peer& peer) {
    std::string text = peer.read("\r\n\r\n");
    text += peer.read("0\r\n\r\n");
    peer.send("HTTP/1.1 200 OK\r\n\r\nanswer");
    peer.endSending();
    received.set_value(text + peer.read());
  });
  start(NEFilterAction::FilterData);
  provider->newFlow = kExamine;
  std::string authority = "localhost:" + std::to_string(server.port()), url = "http://" + authority + "/form?x=1";
  std::string fields = "\r\nHost: " + authority + "\r\nTransfer-Encoding: chunked\r\n";
  Peer peer = client("POST " + url + " HTTP/1.1" + fields + "Proxy-Connection: a\r\nConnection: x\r\nX: b\r\n\r\n");
  peer.send("5\r\nhello\r\n0\r\n");
  peer.send("\r\nGET http://held.example/ HTTP/1.1\r\n\r\n");
  EXPECT_EQ(peer.read(), "HTTP/1.1 200 OK\r\n\r\nanswer");
  EXPECT_EQ(peer.error, 0);
  std::string head = "POST /form?x=1 HTTP/1.1" + fields + "Connection: close\r\n\r\n";
  EXPECT_EQ(received.get_future().get(), head + "5\r\nhello\r\n0\r\n\r\n");
  auto seen = provider->take();
  EXPECT_EQ(seen.calls, "new " + url + "; data 0 " + url + "; ");
  EXPECT_TRUE(seen.bytes.starts_with(head)) << seen.bytes;
}

}  // namespace
}  // namespace orvane
