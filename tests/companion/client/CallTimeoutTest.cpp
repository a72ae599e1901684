#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <stdexcept>

#include "companion/client/CallTimeout.h"
#include "platform/linux/base/Descriptor.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

class CallTimeoutTest : public testing::Test {
 protected:
  CallTimeoutTest() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("no socket pair");
    connection_ = Descriptor(ends[0]);
    peer_ = Descriptor(ends[1]);
  }
  Descriptor connection_, peer_;
};

TEST_F(CallTimeoutTest, EndsACallThatIsNotAnswered) {
  CallTimeout timeout(1ms);
  timeout.watch(connection_.get());
  char byte;
  ssize_t got = -1;
  do got = recv(connection_.get(), &byte, 1, 0);
  while (got < 0 && errno == EINTR);
  EXPECT_EQ(got, 0);
  EXPECT_TRUE(timeout.hasExpired());
}

TEST_F(CallTimeoutTest, LeavesTheConnectionAloneAfterwards) {
  {
    CallTimeout timeout(0ms);
    timeout.watch(connection_.get());
  }
  raise(SIGALRM);  // a tick that was still pending
  EXPECT_EQ(send(peer_.get(), "a", 1, 0), 1);
  char byte;
  EXPECT_EQ(recv(connection_.get(), &byte, 1, 0), 1);
}

}  // namespace
}  // namespace orvane
