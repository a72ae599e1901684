#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

// The commands run one after the other on the same list. Each row has a command, its exit code and its standard output.
// "%" stands for the path of the list.
TEST(ListCommands, ChangeTheListOnlyWhenAllTheirHostsAreGood) {
  const TemporaryFolder folder;
  struct Case {
    const char* command;
    int code;
    const char* output;
  };
  const Case kCases[] = {
      {"block www.Example.com m.example.com", 0, "example.com, with www.example.com and m.example.com\n"},
      {"block other.example a..b 2>&1 | tail -n 1", 0,
       "orvanectl: nothing was changed: 1 of 2 names refused: correct the names above\n"},
      {"block --no-www www.example.com", 0, "www.example.com\n"},
      {"block --www example.com", 0, "example.com, with www.example.com and m.example.com: already on the list\n"},
      {"suspend m.example.com --for 1d >'%'.out && cut -d ' ' -f 1-8 '%'.out", 0,
       "example.com, with www.example.com and m.example.com: not blocked until\n"},
      {"list | sed 's/=.*/=/'", 0, "example.com until=\nwww.example.com only\n"},
      {"suspend example.com --for 1h --until 18:00", 2, ""},
      {"suspend example.com", 2, ""},
      {"--json suspend example.com --until 2020-01-01", 2, ""},
      {"resume example.com none.example", 2, ""},
      {"suspend example.com --all --for 1h", 2, ""},
      {"resume", 2, ""},
      {"list --json | grep -c until", 0, "1\n"},
      {"resume example.com", 0, "example.com, with www.example.com and m.example.com: blocked again\n"},
      {"export | '" ORVANECTL "' --list '%.2' import - | tail -n 1", 0,
       "0 duplicates, 0 skipped (localhost and the like), 0 rejected\n"},
      {"import --replace - </dev/null", 2, ""},
      {"export | cmp - '%.2'", 0, ""},
      {"unblock www.example.com m.example.com >'%'.out && grep -c still '%'.out", 1, "0\n"},
      {"block example.com >'%'.out; '" ORVANECTL "' --state '%.state' --list '%' block --no-www www.example.com", 0,
       "www.example.com\n"},
      {"unblock www.example.com", 0,
       "www.example.com: removed from the list; still blocked by another line: www.example.com\n"},
      {"unblock www.example.com", 0, "example.com, with www.example.com and m.example.com: removed from the list\n"},
      {"unblock example.com", 2, ""},
      {"resume --all", 0, ""},
      {"export --json", 0, "[]\n"},
      {"import '%.none'", 1, ""},
  };
  for (const Case& each : kCases) {
    std::string command = std::string("'" ORVANECTL "' --state '%.state' --list '%' ") + each.command;
    for (size_t at; (at = command.find('%')) != std::string::npos;) command.replace(at, 1, folder.path() / "list");
    std::array<char, 4096> output{};
    FILE* pipe = popen((command + (each.code == 0 ? "" : " 2>/dev/null")).c_str(), "r");
    output[fread(output.data(), 1, output.size() - 1, pipe)] = 0;
    int status = pclose(pipe);
    EXPECT_EQ(WEXITSTATUS(status), each.code) << each.command;
    EXPECT_STREQ(output.data(), each.output) << each.command;
  }
}

}  // namespace
}  // namespace orvane
