#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>

#include "diagnostics/os_log_dump.h"
#include "platform/Bundle.h"
#include "platform/StandIn.h"

namespace orvane {
namespace {

// The lines of a dump with the prefix "p:", joined by " | ".
std::string dump(std::string_view data, int style, int width, int group, bool ascii) {
  stand_in::reset();
  os_log_dump(os_log_create(kBundleIdentifier, "c"), "p:", style, width, group, data.data(), data.size(), ascii);
  return stand_in::take_log("c");
}

TEST(DumpTest, FormatsLines) {
  const std::string sixteen = "0123456789abcdef", p = "p:00000000: ", blanks(29, ' ');
  const std::string bytes = "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66\n";
  const std::tuple<const char*, std::string, int, int, bool, std::string> cases[] = {
      {"no bytes", "", 16, 1, true, ""},
      {"three bytes", std::string("AB\0", 3), 16, 1, true, p + "41 42 00" + std::string(41, ' ') + "AB.\n"},
      {"groups of 2", "\1\2\3\4", 16, 2, false, p + "0201 0403\n"},
      {"groups of 4", "\1\2\3\4\5\6\7\x8", 16, 4, false, p + "04030201 08070605\n"},
      {"groups of 8", "\1\2\3\4\5\6\7\x8", 16, 8, false, p + "0807060504030201\n"},
      {"an incomplete group", "\1\2\3\4\5\6", 16, 4, true, p + "01 02 03 04 05 06   " + blanks + "......\n"},
      {"a short line of whole groups", sixteen.substr(0, 4), 16, 4, true, p + "33323130" + blanks + "0123\n"},
      {"an unknown width and group", sixteen + "g", 24, 3, false, p + bytes + " | p:00000010: 67\n"},
      {"unprintable bytes", "\x1f\x20\x7e\x7f\x80\xff", 16, 1, true, p + "1f 20 7e 7f 80 ff   " + blanks + ". ~...\n"},
  };
  for (const auto& [what, data, width, group, ascii, lines] : cases) {
    EXPECT_EQ(dump(data, 2, width, group, ascii), lines) << what;
  }
}

TEST(DumpTest, PutsTwoBlanksBeforeTheCharactersOfFullLines) {
  const std::string data(32, 'x');
  for (size_t width : {16, 32}) {
    for (size_t group : {1, 2, 4, 8}) {
      const std::string line = dump(data.substr(0, width), 0, static_cast<int>(width), static_cast<int>(group), true);
      const size_t column = 2 + 2 * width + width / group - 1;
      ASSERT_GE(line.size(), column) << width << " " << group;
      EXPECT_EQ(line.substr(column), "  " + data.substr(0, width) + "\n") << width << " " << group;
    }
  }
}

TEST(DumpTest, BeginsLinesInEachOffsetStyle) {
  const std::string data(40, '\x11');
  EXPECT_TRUE(dump(data, 2, 32, 8, false).ends_with(" | p:00000020: 1111111111111111\n"));
  EXPECT_TRUE(dump(data, 3, 32, 8, false).ends_with(" | p:1111111111111111\n"));
  char last[60];
  std::snprintf(last, sizeof last, " | p:%p: 1111111111111111\n", static_cast<const void*>(data.data() + 32));
  EXPECT_TRUE(dump(data, 1, 32, 8, false).ends_with(last));
}

TEST(DumpTest, PrintsAnEmptyLineForNullData) {
  stand_in::reset();
  os_log_dump(os_log_create(kBundleIdentifier, "c"), "p:", 2, 16, 1, nullptr, 16, true);
  EXPECT_EQ(stand_in::take_log(), "c: p:00000000: \n");
}

TEST(DumpTest, KeepsTheLogHandleUntilItsLastLine) {
  stand_in::reset();
  os_log_t log = os_log_create(kBundleIdentifier, "c");
  const int alive = stand_in::alive("LogHandle");
  // The caller releases its reference while the dump runs.
  stand_in::log.hook = [&](const stand_in::LogEntry&) {
    log = nullptr;
    EXPECT_EQ(stand_in::alive("LogHandle"), alive);
  };
  const std::string data(33, 'x');
  os_log_dump(log, "p:", 2, 32, 4, data.data(), data.size(), true);
  EXPECT_EQ(stand_in::alive("LogHandle"), alive - 1);
}

}  // namespace
}  // namespace orvane
