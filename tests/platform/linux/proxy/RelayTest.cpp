#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <tuple>

#include "platform/linux/proxy/Relay.h"
#include "support/Sockets.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

// Two connected sockets: `inner` is for the relay, and non-blocking; `outer` is for the test.
struct Pair {
  Pair() {
    std::tie(inner, outer.socket) = socket_pair();
    fcntl(inner.get(), F_SETFL, O_NONBLOCK);
  }
  Descriptor inner;
  Peer outer{Descriptor()};
};

class RelayTest : public testing::Test {
 protected:
  void start(const GateQuestion& question) {
    outcome = std::async(std::launch::async, [this, question] {
      const auto note = [this] { ++writes; };
      return Relay(client.inner.get(), upstream.inner.get(), stop.get(), {}, nullptr, question, note).run();
    });
  }
  ~RelayTest() override { eventfd_write(stop.get(), 1); }

  Pair client, upstream;
  Descriptor stop{eventfd(0, EFD_CLOEXEC)};
  std::atomic<size_t> writes{0};  // how often the relay has passed bytes on
  std::future<Relay::Outcome> outcome;
};

// Sends until the socket has accepted nothing for 0.3 s. Returns the number of bytes sent.
size_t send_until_full(const Peer& peer) {
  const std::string block(65536, 'x');
  const timeval patience{0, 300000};
  setsockopt(peer.socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  size_t total = 0;
  for (ssize_t count; (count = send(peer.socket.get(), block.data(), block.size(), MSG_NOSIGNAL)) > 0;) {
    total += static_cast<size_t>(count);
  }
  return total;
}

TEST_F(RelayTest, StopsReadingWhileTheOtherSideDoesNot) {
  start([](auto...) { return Gate::Open; });
  for (auto [from, to] : {std::pair{&client.outer, &upstream.outer}, {&upstream.outer, &client.outer}}) {
    size_t sent = send_until_full(*from);
    EXPECT_LT(sent, 4U << 20);
    from->endSending();
    const size_t before = writes;
    EXPECT_EQ(to->read().size(), sent);
    EXPECT_GT(writes, before) << "the proxy would end the connection as idle";
  }
  EXPECT_EQ(outcome.get(), Relay::Outcome::Ended);
}

TEST_F(RelayTest, HoldsNoMoreThanItsBufferForTheGate) {
  std::atomic<size_t> most{0};
  start([&most](std::span<const uint8_t> held, auto...) {
    most = std::max(most.load(), held.size());
    return Gate::Held;
  });
  send_until_full(client.outer);
  while (most < kRelayBufferSize) std::this_thread::yield();  // a slow machine
  EXPECT_EQ(most, kRelayBufferSize);
  upstream.outer.send("banner\n");
  EXPECT_EQ(client.outer.read("\n"), "banner\n");
  const timeval atOnce{0, 1};
  setsockopt(upstream.outer.socket.get(), SOL_SOCKET, SO_RCVTIMEO, &atOnce, sizeof atOnce);
  EXPECT_EQ(upstream.outer.read(), "") << "held bytes reached the server";
}

}  // namespace
}  // namespace orvane
