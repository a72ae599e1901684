#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "companion/keeper/ShutdownRequest.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

TEST(ShutdownRequest, EndsLongWorkAtOnce) {
  const TemporaryFolder folder;
  const std::string file = folder.path() / "file";
  auto work = [&](bool isEarly) {
    std::ofstream(file) << "for others";
    ShutdownRequest request({file});
    if (isEarly) raise(SIGTERM);
    request.exitAtOnce(true);
    if (!isEarly) raise(SIGTERM);
    _exit(1);
  };
  for (const bool isEarly : {true, false}) {
    EXPECT_EXIT(work(isEarly), testing::ExitedWithCode(0), "") << "early: " << isEarly;
    EXPECT_FALSE(std::filesystem::exists(file)) << "early: " << isEarly;
  }
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
