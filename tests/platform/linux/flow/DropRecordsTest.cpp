#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/linux/flow/DropRecords.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

class DropRecordsTest : public testing::Test {
 protected:
  DropRecordsTest() {
    records.switchOn([this](const std::string& entry) {
      if (!isFull) entries.push_back(entry.substr(entry.find("ORVANE_")));
      return !isFull;
    });
  }

  // Records a flow to each of the hosts h0.example, h1.example ... at a time after the start. Returns the entries.
  std::vector<std::string> record(int hosts, std::chrono::milliseconds after) {
    for (int i = 0; i < hosts; ++i) records.record("h" + std::to_string(i) + ".example", "browser", start + after);
    return std::exchange(entries, {});
  }

  const DropRecords::Clock::time_point start = DropRecords::Clock::now();
  bool isFull = false;  // the journal's socket
  std::vector<std::string> entries;
  DropRecords records;
};

TEST_F(DropRecordsTest, WritesOneEntryASecondForAName) {
  EXPECT_EQ(record(2, 0s).size(), 2);
  EXPECT_EQ(record(2, 999ms).size(), 0);
  EXPECT_EQ(record(3, 999ms).size(), 1);
  EXPECT_EQ(record(3, 1s).size(), 2);
}

TEST_F(DropRecordsTest, LimitsAllEntriesAndCountsTheRest) {
  const std::string h0 = "ORVANE_HOST=h0.example\nORVANE_BROWSER=browser\n";
  EXPECT_EQ(record(1000, 0s).size(), 300);
  EXPECT_EQ(record(1000, 59s).size(), 59) << "one a second";
  EXPECT_EQ(record(1, 60s), std::vector<std::string>({"ORVANE_LEFT_OUT=1641\n", h0}));
  isFull = true;
  record(3, 100s);
  isFull = false;
  EXPECT_EQ(record(1, 100s), std::vector{h0});
  records.finish();
  records.finish();
  EXPECT_EQ(entries, std::vector<std::string>{"ORVANE_LEFT_OUT=3\n"});
}

TEST_F(DropRecordsTest, EscapesWhatIsNotPrintableASCIIAndKeepsTheEndOfALongName) {
  records.record(std::string(300, 'x') + ".held.example", "browser", start);
  EXPECT_EQ(entries.front(), "ORVANE_HOST=..." + std::string(242, 'x') + ".held.example\nORVANE_BROWSER=browser\n");
  entries.clear();
  records.record("a\nMESSAGE=x\x1b\\", "f\xc3\xbcx", start);
  EXPECT_EQ(entries.front(), "ORVANE_HOST=a\\x0aMESSAGE=x\\x1b\\x5c\nORVANE_BROWSER=f\\xc3\\xbcx\n");
}

}  // namespace
}  // namespace orvane
