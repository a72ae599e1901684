#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "companion/statistics/DropSums.h"
#include "companion/statistics/Plot.h"
#include "companion/statistics/Statistics.h"
#include "platform/linux/flow/DropEntry.h"
#include "support/TemporaryFolder.h"
#include "support/TimeZone.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

constexpr const char* kRemote = "/lib/systemd/systemd-journal-remote";

// A journal with entries that the tests make, and a bundle.
class Statistics : public testing::Test {
 protected:
  // Adds an entry (systemd.io/JOURNAL_EXPORT_FORMATS). `fields` has one field on each line.
  void add(const std::string& fields, const char* when, const std::string& unit = "orvane-se.service") {
    const auto time = std::chrono::microseconds(read_moment(when).time_since_epoch()).count();
    entries_ += "__REALTIME_TIMESTAMP=" + std::to_string(time) +
                "\n__MONOTONIC_TIMESTAMP=" + std::to_string(++monotonic_) +
                "\n_BOOT_ID=6b3a0ce1b0b84f4c9dd5d3b9bd5d3b9b\n_SYSTEMD_UNIT=" + unit +
                "\nMESSAGE_ID=" + kDropMessageID + '\n' + fields + "\n\n";
  }
  void addDrops(const std::string& host, int count, const char* when, const std::string& unit = "orvane-se.service") {
    add("ORVANE_HOST=" + host + "\nORVANE_BROWSER=firefox\nORVANE_COUNT=" + std::to_string(count), when, unit);
  }
  void setKey(const std::string& value) const {
    folder_.write("bundle/Contents/Info.plist",
                  "<plist><dict><key>NetworkExtension</key><dict><key>NEProviderClasses</key><dict/>"
                  "<key>OrvaneRecordDrops</key><string>" +
                      value + "</string></dict></dict></plist>");
  }
  // Writes the journal. Returns what the command prints.
  std::string print(const StatisticsOptions& options) {
    folder_.write("entries", entries_);
    const std::string path = folder_.path() / "journal";
    std::filesystem::create_directory(path);
    std::filesystem::remove(path + "/a.journal");
    const std::string make =
        std::string(kRemote) + " -o '" + path + "/a.journal' - <'" + (folder_.path() / "entries").string() + "' 2>&1";
    if (std::system(make.c_str()) != 0) return "no journal";
    testing::internal::CaptureStdout();
    show_statistics(options, DropJournal(path), folder_.path() / "bundle", read_moment("2026-11-22T20:30:00Z"));
    return testing::internal::GetCapturedStdout();
  }

  const TimeZone zone{"Europe/Berlin"};

 private:
  const TemporaryFolder folder_;
  std::string entries_;
  int monotonic_ = 0;
};

TEST_F(Statistics, SumUpEntriesOfTheExtensionAlone) {
  if (!std::filesystem::exists(kRemote)) GTEST_SKIP() << "needs systemd-journal-remote";
  setKey("yes");
  addDrops("early.example", 1, "2026-11-21T22:59:59Z");
  addDrops("xn--bcher-kva.example", 1, "2026-11-21T23:00:00Z");
  addDrops("held.example", 1, "2026-11-22T18:00:00Z");
  addDrops("held.example", 5, "2026-11-22T19:10:31Z");
  addDrops("a\x1b[2J", 1, "2026-11-22T19:20:00Z");
  add("ORVANE_COUNT=12", "2026-11-22T19:30:00Z");
  addDrops("forged.example", 1, "2026-11-22T19:40:00Z", "user@1000.service\n_SYSTEMD_USER_UNIT=orvane-se.service");
  add("MESSAGE=another", "2026-11-22T19:45:00Z");
  addDrops("late.example", 1, "2026-11-22T20:00:01Z");
  EXPECT_EQ(print({.until = "21:00"}), R"(Blocked from 00:00 to 21:00: 8 connections to 3 hosts

  blocked  last   host
        6  20:10  held.example
        1  20:20  "a\x1b[2J"
        1  00:00  bücher.example (xn--bcher-kva.example)

  blocked  last   browser
        8  20:20  firefox

12 more connections are left out above: too many were blocked at once, or the journal was full.
)");
  EXPECT_EQ(print({.since = "20:00", .until = "21:00", .json = true}),
            R"({"browsers":[{"browser":"firefox","count":6,"last":"2026-11-22T19:20:00Z"}],"count":6,)"
            R"("hosts":[{"count":5,"host":"held.example","last":"2026-11-22T19:10:31Z"},)"
            R"({"count":1,"host":"a\u001b[2J","last":"2026-11-22T19:20:00Z"}],)"
            R"("hours":[{"count":6,"start":"2026-11-22T19:00:00Z"}],"leftOut":12,"recording":true,)"
            R"("since":"2026-11-22T19:00:00Z","until":"2026-11-22T20:00:00Z"})"
            "\n");
}

TEST_F(Statistics, SayWhyThereAreNone) {
  if (!std::filesystem::exists(kRemote)) GTEST_SKIP() << "needs systemd-journal-remote";
  const std::tuple<const char*, const char*, bool, const char*> kCases[] = {
      {"yes", "today", false, "Blocked connections are recorded, but none is in the journal: "},
      {"no", "today", false,
       "Blocked connections are not recorded. To switch the recording on, set the key OrvaneRecordDrops in "},
      {"</bad>", "today", false, "is not known, because the settings cannot be read: "},
      {"yes", "today", true,
       "The last connection before that was recorded at Mon 2026-11-16 12:00: give an earlier --since.\n"},
      {"no", "today", true,
       "give an earlier --since. Blocked connections are not recorded. To switch the recording on"},
      {"no", "2026-11-15", true, "\nThe recording is off now. To switch the recording on, set the key"},
  };
  for (const auto& [value, since, hasOldEntry, text] : kCases) {
    setKey(value);
    if (hasOldEntry) addDrops("held.example", 1, "2026-11-16T11:00:00Z");
    EXPECT_NE(print({.since = since}).find(text), std::string::npos) << text;
  }
  const std::string early = print({.since = "2026-11-15 10:00", .until = "2026-11-15 11:00"});
  EXPECT_NE(early.find("leave out --until to see later ones"), std::string::npos) << early;
  const std::string untilToday = print({.since = "2026-11-15", .until = "today"});
  EXPECT_TRUE(untilToday.starts_with("Blocked from Sun 2026-11-15 00:00 to today 00:00: ")) << untilToday;
}

TEST(DropSums, CountHoursAndDaysThroughChangesOfTheClocks) {
  const TimeZone zone("Europe/Berlin");
  DropSums sums;
  const Moment first = read_moment("2026-10-24T22:30:00Z");  // 00:30; at 03:00 the clocks go back to 02:00
  for (const auto after : {0h, 1h, 2h, 2h, 24h}) sums.add({first + after, "a.example", "firefox"});
  const auto text = [&](Moment until) {
    std::string bars;
    for (const auto& bar : sums.bars(until))
      bars += local_text(bar.start, until + 48h) + "=" + std::to_string(bar.count) + " ";
    return bars;
  };
  EXPECT_TRUE(text(first + 24h)
                  .starts_with("Sun 2026-10-25 00:00=1 Sun 2026-10-25 01:00=1 Sun 2026-10-25 02:00=2 "
                               "Sun 2026-10-25 02:00=0 Sun 2026-10-25 03:00=0 "))
      << text(first + 24h);
  EXPECT_EQ(text(first + 72h), "Sun 2026-10-25 00:00=5 Mon 2026-10-26 00:00=0 Tue 2026-10-27 00:00=0 ");
}

TEST(Plot, FitsTheTerminal) {
  const std::vector<std::pair<std::string, uint64_t>> bars = {{"Sun", 1000}, {"Mon 1", 255}, {"Tue", 1}, {"Wed", 0}};
  EXPECT_EQ(plot(bars, 28, PlotStyle::Blocks),
            (std::vector<std::string>{"Sun    ████████████████ 1000", "Mon 1  ████ 255", "Tue    ▏ 1", "Wed    "}));
  EXPECT_EQ(plot(bars, 1, PlotStyle::ASCII),
            (std::vector<std::string>{"Sun    ########## 1000", "Mon 1  ### 255", "Tue    # 1", "Wed    "}));
}

}  // namespace
}  // namespace orvane
