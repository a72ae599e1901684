#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "companion/client/CallTimeout.h"
#include "support/Sockets.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

struct Sockets {
  // Waits for a byte from the peer, as a call waits for its reply.
  ssize_t receive() const {
    char byte;
    return TEMP_FAILURE_RETRY(recv(connection.get(), &byte, 1, 0));
  }
  std::pair<Descriptor, Descriptor> ends = socket_pair();
  const Descriptor &connection = ends.first, &peer = ends.second;
};

TEST(CallTimeout, EndsACallThatIsNotAnswered) {
  const Sockets sockets;
  CallTimeout timeout(1ms);
  timeout.watch(sockets.connection.get());
  EXPECT_EQ(sockets.receive(), 0);
  EXPECT_TRUE(timeout.hasExpired());
}

TEST(CallTimeout, LeavesTheConnectionAloneAfterwards) {
  const Sockets sockets;
  CallTimeout(0ms).watch(sockets.connection.get());
  raise(SIGALRM);  // the timer's signal may still be pending when the call ends
  EXPECT_EQ(send(sockets.peer.get(), "a", 1, MSG_NOSIGNAL), 1);
  EXPECT_EQ(sockets.receive(), 1);
}

}  // namespace
}  // namespace orvane
