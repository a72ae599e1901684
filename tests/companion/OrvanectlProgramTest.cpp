#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

namespace {

// The exit code of the program itself, run by a shell with these arguments and redirections.
int exit_code(const std::string& arguments) {
  int status = std::system(("'" ORVANECTL "' " + arguments).c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(OrvanectlProgram, ExitsAsItsManualSays) {
  const struct {
    const char* arguments;
    int code;
  } kCases[] = {
      {"--help | grep -q properties", 0},
      {"call --help | grep -q setApplicationIdentifiers", 0},
      {"--version | grep -q '^orvanectl [0-9]'", 0},
      {"--help >/dev/full 2>/dev/null", 1},
      {"--socket /nonexistent/socket ping 2>/dev/null", 1},
      {"--socket /nonexistent/socket set - 2>/dev/null </dev/null", 1},
      {"set - 2>/dev/null <&-", 1},
      {"frobnicate 2>/dev/null", 2},
      {"add 'a b' 2>/dev/null", 2},
      {"--socket /nonexistent/socket set - 2>/dev/null <<end\na b\nend", 2},
  };
  for (const auto& [arguments, code] : kCases) EXPECT_EQ(exit_code(arguments), code) << arguments;
}

}  // namespace
