#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "companion/client/CallTimeout.h"
#include "support/Sockets.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

TEST(CallTimeout, EndsACallThatIsNotAnswered) {
  const auto [connection, peer] = socket_pair();
  CallTimeout timeout(1ms);
  timeout.watch(connection.get());
  char byte;
  EXPECT_EQ(TEMP_FAILURE_RETRY(recv(connection.get(), &byte, 1, 0)), 0);  // as a call waits for its reply
  EXPECT_TRUE(timeout.hasExpired());
}

TEST(CallTimeout, LeavesTheConnectionAloneAfterwards) {
  const auto [connection, peer] = socket_pair();
  CallTimeout(0ms).watch(connection.get());
  raise(SIGALRM);  // the timer's signal may still be pending when the call ends
  char byte;
  EXPECT_EQ(send(peer.get(), "a", 1, MSG_NOSIGNAL), 1);
  EXPECT_EQ(recv(connection.get(), &byte, 1, 0), 1);
}

}  // namespace
}  // namespace orvane
