#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "companion/keeper/ShutdownRequest.h"

namespace orvane {
namespace {

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
