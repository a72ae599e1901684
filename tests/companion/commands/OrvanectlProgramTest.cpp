#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <utility>

namespace {

TEST(OrvanectlProgram, ExitsWithTheCodesOfItsManual) {
  const std::pair<std::string, int> kCases[] = {
      {"call --help | grep -q setApplicationIdentifiers", 0},
      {"--help >/dev/full 2>/dev/null", 1},
      {"--socket /nonexistent/socket ping 2>/dev/null", 1},
      {"--socket /nonexistent/socket set - 2>/dev/null </dev/null", 1},
      {"--socket /nonexistent/socket set - 2>/dev/null <<end\na b\nend", 2},
  };
  for (const auto& [arguments, code] : kCases) {
    int status = std::system(("'" ORVANECTL "' " + arguments).c_str());
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, code) << arguments;
  }
}

}  // namespace
