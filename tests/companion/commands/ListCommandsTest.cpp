#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "companion/text/Input.h"
#include "companion/text/TimeText.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

// In Berlin the clocks went from 2:00 to 3:00 on 2026-03-29, and from 3:00 back to 2:00 on 2026-10-25.
TEST(ListCommands, UnderstandTimesAsPeopleTypeThem) {
  setenv("TZ", "Europe/Berlin", 1);
  const char* const kCases[][3] = {
      {"2026-03-28T12:00:00Z", "18:00", "2026-03-28T17:00:00Z"},
      {"2026-03-28T12:00:00Z", "13:00", "2026-03-29T11:00:00Z"},
      {"2026-03-28T12:00:00Z", "tomorrow 2:30", "2026-03-29T01:30:00Z"},
      {"2026-10-24T12:00:00Z", "tomorrow 2:30:15", "2026-10-25T00:30:15Z"},
      {"2026-10-24T12:00:00Z", " tomorrow ", "2026-10-24T22:00:00Z"},
      {"2026-03-28T12:00:00Z", "today 18:00", "2026-03-28T17:00:00Z"},
      {"2026-03-28T12:00:00Z", "2026-12-24 18:00", "2026-12-24T17:00:00Z"},
      {"2026-03-28T12:00:00Z", "2026-12-24T18:00", "2026-12-24T17:00:00Z"},
      {"2026-03-28T12:00:00Z", "2026-12-24", "2026-12-23T23:00:00Z"},
      {"2026-03-28T12:00:00Z", "2026-12-24 18:00:00.5+01:00", "2026-12-24T17:00:01Z"},
  };
  for (const auto& [now, text, moment] : kCases)
    EXPECT_EQ(time_text(read_until(text, read_moment(now))), moment) << now << " " << text;
  const Moment now = read_moment("2026-03-28T12:00:00Z");
  for (const char* text :
       {"", "18", "24:00", "6:60", "today 9:00", "2026-02-30", "2026-03-28 13:00", "2037-01-01", "18:00x", "never"})
    EXPECT_THROW(read_until(text, now), InputError) << text;
  EXPECT_EQ(local_text(read_moment("2026-03-29T01:30:00Z"), now), "tomorrow 03:30");

  const std::pair<const char*, int64_t> kDurations[] = {
      {"90s", 90}, {"30m", 1800}, {"1h30m", 5400}, {" 1 h 30 min ", 5400}, {"2d", 172800}, {"1w", 604800}};
  for (const auto& [text, seconds] : kDurations) EXPECT_EQ(read_duration(text).count(), seconds) << text;
  for (const char* text : {"", "30", "0m", "-5m", "1.5h", "3m x", "99999999999s", "999999999w", "3653d"})
    EXPECT_THROW(read_duration(text), InputError) << text;
}

// One session of commands, each with its exit code and standard output.
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
