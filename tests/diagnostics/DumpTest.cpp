#include <gtest/gtest.h>

#include <cinttypes>
#include <new>

#include "diagnostics/os_log_dump.h"
#include "platform/StandIn.h"

namespace {

thread_local long allocations = 0;

}  // namespace

// Counts what the dump takes from the heap.
void* operator new(size_t size) {
  ++allocations;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace orvane {
namespace {

using Strings = std::vector<std::string>;

Strings dump(std::string_view data, int style, int width, int group, bool ascii) {
  stand_in::reset();
  os_log_dump(os_log_create("s", "c"), "p:", style, width, group, data.data(), data.size(), ascii);
  Strings lines = stand_in::take_log();
  for (std::string& line : lines) line.erase(0, 3);  // the category
  return lines;
}

TEST(DumpTest, LaysLinesOut) {
  using namespace std::string_literals;
  const std::string sixteen = "0123456789abcdef";
  const struct {
    std::string data;
    int width, group;
    bool ascii;
    Strings lines;
  } cases[] = {
      {"", 16, 1, true, {}},
      {"AB\0"s, 16, 1, true, {"p:00000000: 41 42 00" + std::string(41, ' ') + "AB.\n"}},
      {"\1\2\3\4", 16, 2, false, {"p:00000000: 0201 0403\n"}},
      {"\1\2\3\4\5\6\7\x8", 16, 4, false, {"p:00000000: 04030201 08070605\n"}},
      {"\1\2\3\4\5\6\7\x8", 16, 8, false, {"p:00000000: 0807060504030201\n"}},
      // No multiple of the group: single bytes, and their column.
      {"\1\2\3\4\5\6", 16, 4, true, {"p:00000000: 01 02 03 04 05 06" + std::string(32, ' ') + "......\n"}},
      {sixteen, 16, 4, true, {"p:00000000: 33323130 37363534 62613938 66656463  " + sixteen + "\n"}},
      // A short line of whole groups keeps the column of full lines.
      {sixteen.substr(0, 4), 16, 4, true, {"p:00000000: 33323130" + std::string(29, ' ') + "0123\n"}},
      // Widths and groups that are none.
      {sixteen + "g",
       24,
       3,
       false,
       {"p:00000000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66\n", "p:00000010: 67\n"}},
      {"\x1f\x20\x7e\x7f\x80\xff", 16, 1, true, {"p:00000000: 1f 20 7e 7f 80 ff" + std::string(32, ' ') + ". ~...\n"}},
  };
  for (const auto& c : cases) EXPECT_EQ(dump(c.data, 2, c.width, c.group, c.ascii), c.lines);
}

TEST(DumpTest, SetsTheTwoColumnsTwoBlanksApartOnFullLines) {
  const std::string data(32, 'x');
  for (int width : {16, 32}) {
    for (int group : {1, 2, 4, 8}) {
      const std::string line = dump(data, 0, width, group, true)[0];
      const size_t digits = static_cast<size_t>(2 * width + width / group - 1);
      ASSERT_EQ(line.size(), 2 + digits + 2 + static_cast<size_t>(width) + 1) << width << " " << group;
      EXPECT_EQ(line.substr(2 + digits), "  " + std::string(static_cast<size_t>(width), 'x') + "\n");
    }
  }
}

TEST(DumpTest, LeadsLinesByOffsetAddressOrNothing) {
  const std::string data(40, '\x11');
  EXPECT_TRUE(dump(data, 2, 32, 8, false)[1].starts_with("p:00000020: 11"));
  EXPECT_EQ(dump(data, 3, 32, 8, false)[1], "p:1111111111111111\n");
  char address[40];
  std::snprintf(address, sizeof address, "p:%p: 1111", static_cast<const void*>(data.data() + 32));
  EXPECT_TRUE(dump(data, 1, 32, 8, false)[1].starts_with(address));
}

TEST(DumpTest, SurvivesANullStart) {
  stand_in::reset();
  os_log_dump(os_log_create("s", "c"), "p:", 2, 16, 1, nullptr, 16, true);
  EXPECT_EQ(stand_in::take_log(), Strings{"c: p:00000000: \n"});
}

TEST(DumpTest, HoldsTheLogAndTakesNothingFromTheHeap) {
  stand_in::reset();
  os_log_t log = os_log_create("s", "c");
  const int alive = stand_in::alive("LogHandle");
  stand_in::log().enabled[LogLevel::Debug] = false;
  const std::string data(4096, 'x');
  const long before = allocations;
  os_log_dump(log, "p:", 2, 32, 4, data.data(), data.size(), true);
  EXPECT_EQ(allocations, before);
  EXPECT_EQ(stand_in::take_log(), Strings{});
  stand_in::log().enabled[LogLevel::Debug] = true;
  // The caller's own reference goes while the dump runs.
  stand_in::log().hook = [&](const stand_in::LogEntry&) {
    log = nullptr;
    EXPECT_EQ(stand_in::alive("LogHandle"), alive);
  };
  os_log_dump(log, "p:", 2, 32, 4, data.data(), 33, true);
  stand_in::log().hook = nullptr;
  EXPECT_EQ(stand_in::alive("LogHandle"), alive - 1);
}

}  // namespace
}  // namespace orvane
