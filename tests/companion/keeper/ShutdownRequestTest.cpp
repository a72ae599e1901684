#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>

#include "companion/keeper/ShutdownRequest.h"

namespace orvane {
namespace {

TEST(ShutdownRequest, WakesTheLoop) {
  for (int signal : {SIGTERM, SIGINT, SIGHUP}) {
    ShutdownRequest request;
    pollfd event{request.descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&event, 1, 0), 0);
    EXPECT_FALSE(request.isMade());
    raise(signal);
    EXPECT_EQ(poll(&event, 1, 0), 1) << signal;
    EXPECT_TRUE(request.isMade());
  }
}

TEST(ShutdownRequest, EndsLongWorkAtOnce) {
  auto work = [](bool isEarly) {
    ShutdownRequest request;
    if (isEarly) raise(SIGTERM);
    request.exitAtOnce(true);
    if (!isEarly) raise(SIGTERM);
    _exit(1);
  };
  EXPECT_EXIT(work(true), testing::ExitedWithCode(0), "") << "a request before the work";
  EXPECT_EXIT(work(false), testing::ExitedWithCode(0), "") << "a request during the work";
}

TEST(ShutdownRequest, LetsShortWorkFinish) {
  ShutdownRequest request;
  request.exitAtOnce(true);
  request.exitAtOnce(false);
  raise(SIGTERM);
  EXPECT_TRUE(request.isMade());
}

}  // namespace
}  // namespace orvane
