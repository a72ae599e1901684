#include <gnutls/gnutls.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>

#include "platform/StandIn.h"
#include "platform/linux/Proxy.h"
#include "platform/linux/SocketIO.h"
#include "platform/linux/SocketOwner.h"
#include "platform/linux/Sockets.h"

namespace orvane {

// The owner of a client is told by its port here, so that a proxy that asks for the wrong end is found out.
Value audit_token_of_socket_owner(const sockaddr* local, const sockaddr*) {
  return Value::number(ntohs(reinterpret_cast<const sockaddr_in*>(local)->sin_port));
}

namespace {

using NewFlow = NEFilterNewFlowVerdict;
using Data = NEFilterDataVerdict;

const NewFlow kExamine = NewFlow::filterDataVerdictWithFilterInbound(false, 0, true, kFilterFlowBytesMax);
const char* const kEstablished = "HTTP/1.1 200 Connection established\r\n\r\n";

class ScriptedProvider final : public NEFilterDataProvider {
 public:
  NewFlow newFlow = NewFlow::allowVerdict();
  Data data = Data::allowVerdict();
  Data complete = Data::allowVerdict();

  void startFilterWithCompletionHandler(ErrorHandler) override {}
  void stopFilterWithReason(NEProviderStopReason, const std::function<void()>&) override {}
  NewFlow handleNewFlow(const NEFilterFlow& flow) override {
    owner = flow.sourceAppAuditToken().asSigned();
    note("new " + name(flow));
    return newFlow;
  }
  Data handleOutboundDataFromFlow(const NEFilterFlow& flow, uint64_t, std::span<const uint8_t> bytes) override {
    {
      std::lock_guard lock(mutex_);
      shown_.assign(bytes.begin(), bytes.end());
    }
    note("data " + name(flow));
    return data;
  }
  Data handleOutboundDataCompleteForFlow(const NEFilterFlow& flow) override {
    note("complete " + name(flow));
    return complete;
  }

  std::string asked() {
    std::lock_guard lock(mutex_);
    return std::exchange(asked_, {});
  }
  std::string shown() {
    std::lock_guard lock(mutex_);
    return shown_;
  }
  std::atomic<int64_t> owner = 0;

 private:
  static std::string name(const NEFilterFlow& flow) {
    if (auto url = flow.URL()) return url->absoluteString();
    auto* socketFlow = dynamic_cast<const NEFilterSocketFlow*>(&flow);
    return socketFlow == nullptr ? "?" : socketFlow->remoteHostname().value_or("-");
  }
  void note(const std::string& line) {
    std::lock_guard lock(mutex_);
    asked_ += line + "; ";
  }
  std::mutex mutex_;
  std::string asked_, shown_;
};

std::string connect_line(const std::string& host, uint16_t port) {
  return "CONNECT " + host + ":" + std::to_string(port) + " HTTP/1.1\r\n\r\n";
}

void echo(Peer& peer) {
  char bytes[4096];
  for (ssize_t count = 0; (count = recv(peer.fd(), bytes, sizeof bytes, 0)) > 0;) {
    peer.send({bytes, static_cast<size_t>(count)});
  }
}

// A running proxy whose rules ask the provider about one port.
class ProxyTest : public testing::Test {
 protected:
  void SetUp() override { stand_in::take_log(); }

  void start(uint16_t filteredPort, NEFilterAction action = NEFilterAction::FilterData) {
    auto network =
        NENetworkRule::initWithRemoteNetwork(NWHostEndpoint::endpointWithHostname("", std::to_string(filteredPort)), 0,
                                             nullptr, 0, NENetworkRuleProtocol::TCP, NETrafficDirection::Outbound);
    auto rule = NEFilterRule::initWithNetworkRule(network, action);
    ASSERT_EQ(proxy.start(provider, NEFilterSettings::initWithRules({rule}, NEFilterAction::Allow)), std::nullopt);
  }

  Peer client(std::string_view request, int family = AF_INET) {
    Peer peer = Peer::connectTo(proxy.port(), family);
    peer.send(request);
    return peer;
  }

  Ref<ScriptedProvider> provider = Ref<ScriptedProvider>::adopt(new ScriptedProvider);
  Proxy proxy{0};
};

TEST_F(ProxyTest, VerdictsReachClientAndNothingLeavesADroppedFlow) {
  std::atomic<int> bytesOut = 0;
  Server server([&](Peer& peer) {
    char byte[1];
    while (recv(peer.fd(), byte, 1, 0) > 0) {
      ++bytesOut;
      peer.send({byte, 1});
    }
  });
  start(server.port());
  const struct {
    NewFlow newFlow;
    Data data;
    std::string asked;
    bool tunnel;
    int error;  // that the client reads
  } kCases[] = {
      {NewFlow::allowVerdict(), Data::dropVerdict(), "new LocalHost; ", true, 0},
      {NewFlow::dropVerdict(), Data::allowVerdict(), "new LocalHost; ", false, 0},
      {kExamine, Data::allowVerdict(), "new LocalHost; data LocalHost; ", true, 0},
      {kExamine, Data::dropVerdict(), "new LocalHost; data LocalHost; ", true, ECONNRESET},
  };
  for (const auto& c : kCases) {
    provider->newFlow = c.newFlow;
    provider->data = c.data;
    bytesOut = 0;
    Peer peer = client(connect_line("LocalHost", server.port()));
    std::string head = peer.read("\r\n\r\n");
    EXPECT_EQ(head.substr(9, 3), c.tunnel ? "200" : "403") << c.asked;
    bool passes = c.tunnel && c.error == 0;
    if (c.tunnel) peer.send("hello");
    peer.endSending();
    std::string body = peer.read();
    EXPECT_EQ(peer.error, c.error) << c.asked;
    if (passes) {
      EXPECT_EQ(body, "hello");
    } else {
      EXPECT_EQ(bytesOut, 0) << c.asked;
    }
    if (!c.tunnel) {
      EXPECT_EQ(std::count(body.begin(), body.end(), '\n'), 1) << body;
    }
    EXPECT_EQ(provider->asked(), c.asked);
    EXPECT_EQ(provider->owner, port_of(peer.fd()));
  }
}

// The ClientHello of a client that asks for a server name.
std::string client_hello(const char* name) {
  std::string bytes;
  gnutls_session_t session = nullptr;
  gnutls_certificate_credentials_t credentials = nullptr;
  gnutls_init(&session, GNUTLS_CLIENT);
  gnutls_certificate_allocate_credentials(&credentials);
  gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, credentials);
  gnutls_set_default_priority(session);
  gnutls_server_name_set(session, GNUTLS_NAME_DNS, name, strlen(name));
  gnutls_transport_set_ptr(session, &bytes);
  gnutls_transport_set_push_function(session, [](gnutls_transport_ptr_t to, const void* data, size_t size) {
    static_cast<std::string*>(to)->append(static_cast<const char*>(data), size);
    return static_cast<ssize_t>(size);
  });
  gnutls_transport_set_pull_function(session, [](gnutls_transport_ptr_t, void*, size_t) { return ssize_t{0}; });
  gnutls_handshake(session);
  gnutls_deinit(session);
  gnutls_certificate_free_credentials(credentials);
  return bytes;
}

// The same handshake message, in TLS records of a few bytes each.
std::string in_small_records(const std::string& hello) {
  std::string records;
  for (size_t at = 5; at < hello.size(); at += 50) {
    std::string fragment = hello.substr(at, 50);
    records += hello.substr(0, 3) + '\0' + static_cast<char>(fragment.size()) + fragment;
  }
  return records;
}

TEST_F(ProxyTest, ReadsTheNameThatALiteralAddressHides) {
  Server server(echo);
  start(server.port());
  provider->newFlow = kExamine;
  const std::string hello = client_hello("held.example");
  ASSERT_GT(hello.size(), 100U);
  const struct {
    const char* fault;
    std::string bytes;
    size_t piece;
    std::string name;
  } kCases[] = {
      {"a hello in one piece", hello, 65536, "held.example"},
      {"a hello in small writes", hello, 40, "held.example"},
      {"a hello in many records", in_small_records(hello), 65536, "held.example"},
      {"a request's Host", "GET / HTTP/1.1\r\nhost: Held.example:80\r\n\r\n", 9, "Held.example"},
      {"a hello without a name", client_hello(""), 65536, "-"},
      {"a protocol of lines", "EHLO me\r\n", 65536, "-"},
      {"a protocol of bytes", std::string("\x00\x01", 2), 65536, "-"},
      {"a hello without end", std::string("\x16\x03\x01\x40\x00\x01\x00\x3f\x00", 9) + std::string(20000, 'x'), 65536,
       "-"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.fault);
    Peer peer = client(connect_line("127.0.0.1", server.port()));
    ASSERT_EQ(peer.read("\r\n\r\n"), kEstablished);
    for (size_t at = 0; at < c.bytes.size(); at += c.piece) {
      ASSERT_TRUE(peer.send(c.bytes.substr(at, c.piece)));
      if (c.piece < c.bytes.size()) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    peer.endSending();
    EXPECT_EQ(peer.read(), c.bytes);
    EXPECT_EQ(provider->asked(), "new -; data " + c.name + "; ");
    if (c.bytes.size() < 16384) {
      EXPECT_EQ(provider->shown(), c.bytes);
    }
  }
}

TEST_F(ProxyTest, HoldingDoesNotStopAServerThatSpeaksFirst) {
  std::promise<std::string> heard;
  Server server([&](Peer& peer) {
    peer.send("banner\n");
    std::string text = peer.read();
    peer.send("after the end");
    heard.set_value(text);
  });
  start(server.port());
  provider->newFlow = kExamine;
  Peer peer = client(connect_line("127.0.0.1", server.port()));
  EXPECT_EQ(peer.read("banner\n"), std::string(kEstablished) + "banner\n");
  peer.endSending();
  EXPECT_EQ(peer.read(), "after the end");
  EXPECT_EQ(heard.get_future().get(), "");
  EXPECT_EQ(provider->asked(), "new -; complete -; ");
}

TEST_F(ProxyTest, AnUnfinishedNameIsNotWaitedForWithoutEnd) {
  Server server([](Peer& peer) {
    if (peer.read("Q") == "Q") peer.send("A");
  });
  start(server.port());
  provider->newFlow = kExamine;
  Peer peer = client(connect_line("127.0.0.1", server.port()) + "Q");
  EXPECT_EQ(peer.read(), std::string(kEstablished) + "A");
  EXPECT_EQ(provider->asked(), "new -; data -; ");
}

TEST_F(ProxyTest, DropAtTheEndResets) {
  Server server(echo);
  start(server.port());
  provider->newFlow = kExamine;
  provider->complete = Data::dropVerdict();
  Peer peer = client(connect_line("localhost", server.port()));
  peer.read("\r\n\r\n");
  peer.endSending();
  peer.read();
  EXPECT_EQ(peer.error, ECONNRESET);
}

TEST_F(ProxyTest, ABrokenSideDoesNotLookLikeAnEnd) {
  std::promise<int> ending;
  Server server([&](Peer& peer) {
    peer.read("hello");
    peer.send("!");
    peer.read();
    ending.set_value(peer.error);
  });
  start(1);
  Peer peer = client(connect_line("127.0.0.1", server.port()) + "hello");
  peer.read("!");
  peer.reset();
  EXPECT_EQ(ending.get_future().get(), ECONNRESET);
}

TEST_F(ProxyTest, OtherPortsPassUnasked) {
  Server server(echo);
  start(1);
  provider->newFlow = NewFlow::dropVerdict();
  for (int family : {AF_INET, AF_INET6}) {
    Peer peer = client(connect_line("127.0.0.1", server.port()), family);
    if (family == AF_INET6 && !peer) GTEST_SKIP() << "no IPv6 here";
    peer.send("early");
    peer.endSending();
    EXPECT_EQ(peer.read(), std::string(kEstablished) + "early");
  }
  EXPECT_EQ(provider->asked(), "");
}

TEST_F(ProxyTest, RefusalsSayWhy) {
  uint16_t closedPort = 0;
  {
    Server gone(echo);
    closedPort = gone.port();
  }
  start(7, NEFilterAction::Drop);
  const struct {
    std::string request;
    std::string status;
    std::string reason;
  } kCases[] = {
      {connect_line("127.0.0.1", closedPort), "502", "Connection refused"},
      {"GET http://127.0.0.1:" + std::to_string(closedPort) + "/ HTTP/1.1\r\n\r\n", "502", "Connection refused"},
      {connect_line("name.invalid", 443), "502", "cannot be resolved"},
      {connect_line("localhost", proxy.port()), "403", "itself"},
      {connect_line("[::ffff:127.0.0.1]", proxy.port()), "403", "itself"},
      {connect_line("0.0.0.0", proxy.port()), "403", "itself"},
      {connect_line("any.example", 7), "403", "any.example"},
      {"GET / HTTP/1.1\r\nHost: a.example\r\n\r\n", "400", "proxy"},
      {"nonsense\r\n\r\n", "400", "no HTTP request"},
      {"GET http://a.example/ HTTP/1.1\r\nX: " + std::string(200000, 'x') + "\r\n\r\n", "431", "too large"},
      {"POST http://127.0.0.1/ HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", "400", "body"},
  };
  for (const auto& c : kCases) {
    Peer peer = client(c.request);
    std::string reply = peer.read();
    EXPECT_EQ(reply.substr(0, 12), "HTTP/1.1 " + c.status) << c.request.substr(0, 80);
    EXPECT_NE(reply.find(c.reason), std::string::npos) << reply;
    EXPECT_EQ(peer.error, 0) << c.request.substr(0, 80);
  }
}

TEST_F(ProxyTest, ForwardsOneRequestAndNothingAfterIt) {
  std::promise<std::string> received;
  Server server([&](Peer& peer) {
    std::string text = peer.read("\r\n\r\n");
    peer.send("HTTP/1.1 100 Continue\r\n\r\n");
    text += peer.read("0\r\n\r\n");
    char more[64];
    timeval brief{0, 200000};
    setsockopt(peer.fd(), SOL_SOCKET, SO_RCVTIMEO, &brief, sizeof brief);
    if (recv(peer.fd(), more, sizeof more, 0) >= 0) text += "MORE";
    peer.send("HTTP/1.1 200 OK\r\n\r\nanswer");
    received.set_value(text);
  });
  start(server.port());
  provider->newFlow = kExamine;
  std::string authority = "localhost:" + std::to_string(server.port());
  std::string url = "http://" + authority + "/form?x=1";
  Peer peer = client("POST " + url + " HTTP/1.1\r\nHost: " + authority +
                     "\r\nExpect: 100-continue\r\nTransfer-Encoding: chunked\r\nProxy-Connection: keep-alive\r\n\r\n");
  EXPECT_EQ(peer.read("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
  peer.send("5\r\nhello\r\n0\r\n");
  peer.send("\r\nGET http://held.example/ HTTP/1.1\r\n\r\n");
  EXPECT_EQ(peer.read(), "HTTP/1.1 200 OK\r\n\r\nanswer");
  EXPECT_EQ(peer.error, 0);
  std::string head = "POST /form?x=1 HTTP/1.1\r\nHost: " + authority +
                     "\r\nExpect: 100-continue\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(received.get_future().get(), head + "5\r\nhello\r\n0\r\n\r\n");
  EXPECT_EQ(provider->asked(), "new " + url + "; data " + url + "; ");
  EXPECT_EQ(provider->shown(), head);

  provider->data = Data::dropVerdict();
  Peer dropped = client("GET " + url + " HTTP/1.1\r\n\r\n");
  dropped.read();
  EXPECT_EQ(dropped.error, ECONNRESET);
}

TEST(ConnectToAny, OneAddressThatFailsIsNotTheEnd) {
  Server server(echo);
  Descriptor silent(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));  // its queue is full, so it answers no more
  sockaddr_in addresses[3] = {{AF_INET, htons(server.port()), {htonl(INADDR_LOOPBACK + 1)}, {}},  // refused
                              {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}},
                              {AF_INET, htons(server.port()), {htonl(INADDR_LOOPBACK)}, {}}};
  (void)bind(silent.get(), reinterpret_cast<sockaddr*>(&addresses[1]), sizeof addresses[1]);
  listen(silent.get(), 0);
  addresses[1].sin_port = htons(port_of(silent.get()));
  Peer filling = Peer::connectTo(port_of(silent.get()));
  addrinfo chain[3]{};
  for (size_t i = 0; i < 3; ++i) {
    chain[i].ai_family = AF_INET;
    chain[i].ai_addr = reinterpret_cast<sockaddr*>(&addresses[i]);
    chain[i].ai_addrlen = sizeof addresses[i];
    chain[i].ai_next = i < 2 ? &chain[i + 1] : nullptr;
  }
  auto begin = std::chrono::steady_clock::now();
  Connected connected = connect_to_any(chain, -1);
  EXPECT_EQ(port_of(connected.socket.get(), true), server.port()) << connected.reason;
  EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(200)) << "the silent one was not tried";
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(ProxyTest, SlowReaderIsNotBufferedFor) {
  constexpr size_t kTotal = 100 << 20;
  std::atomic<size_t> sent = 0;
  Server server([&](Peer& peer) {
    int small = 65536;
    setsockopt(peer.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::string block(65536, 'x');
    while (sent < kTotal && peer.send(block)) sent += block.size();
  });
  start(1);
  Peer peer = client(connect_line("127.0.0.1", server.port()));
  peer.read("\r\n\r\n");
  // Until nothing moves any more.
  for (size_t before = 1; before != sent;) {
    before = sent;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  RecordProperty("bytes_in_flight", std::to_string(sent));
  // The kernel's buffers of two connections take some megabytes; most must still be with the server.
  EXPECT_LT(sent, kTotal / 2);
  size_t received = 0;
  std::string buffer(1 << 20, '\0');
  for (ssize_t count = 0; (count = recv(peer.fd(), buffer.data(), buffer.size(), 0)) > 0;) {
    received += static_cast<size_t>(count);
  }
  EXPECT_EQ(received, kTotal);
}

TEST_F(ProxyTest, StopEndsOpenTunnelsAndFreesThePort) {
  Server server(echo);
  start(1);
  Peer peer = client(connect_line("127.0.0.1", server.port()) + "ping");
  EXPECT_TRUE(peer.read("ping").ends_with("ping"));
  uint16_t port = proxy.port();
  Proxy second(port);
  auto error = second.start(provider, {});
  EXPECT_TRUE(error && error->find("Address already in use") != std::string::npos) << error.value_or("");
  EXPECT_EQ(stand_in::take_log().front(), "default: proxy listening on 127.0.0.1:" + std::to_string(port));

  auto begin = std::chrono::steady_clock::now();
  proxy.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  peer.read();
  EXPECT_NE(peer.error, EAGAIN);
  EXPECT_FALSE(Peer::connectTo(port));
  EXPECT_EQ(second.start(provider, {}), std::nullopt);
}

TEST_F(ProxyTest, ManyAtOnceAllArrive) {
  Server server([](Peer& peer) { peer.send(peer.read("\n")); });
  start(server.port());
  provider->newFlow = kExamine;
  std::atomic<int> arrived = 0;
  std::vector<std::thread> clients;
  clients.reserve(8);
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&, i] {
      for (int round = 0; round < 25; ++round) {
        Peer peer = client(connect_line("localhost", server.port()));
        std::string line = std::to_string(i) + "/" + std::to_string(round) + "\n";
        peer.send(line);
        if (peer.read(line).ends_with(line)) ++arrived;
      }
    });
  }
  for (std::thread& thread : clients) thread.join();
  EXPECT_EQ(arrived, 200);
}

}  // namespace
}  // namespace orvane
