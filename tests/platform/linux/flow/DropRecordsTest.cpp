#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/files/Descriptor.h"
#include "platform/linux/flow/DropRecords.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

constexpr uid_t kAlice = 1000, kBob = 1001;

class DropRecordsTest : public testing::Test {
 protected:
  DropRecordsTest() {
    records.switchOn([this](const std::string& entry) {
      if (!isFull) entries.push_back(entry.substr(entry.find("ORVANE_")));
      return !isFull;
    });
  }

  // Records a flow to each of the hosts h0.example, h1.example ... Returns the entries.
  std::vector<std::string> record(int hosts, uid_t user = kAlice, const std::string& browser = "browser") {
    for (int i = 0; i < hosts; ++i) records.record("h" + std::to_string(i) + ".example", browser, user);
    return std::exchange(entries, {});
  }
  std::vector<std::string> writeCounts() {
    records.writeCounts();
    return std::exchange(entries, {});
  }
  static std::string entry(int host, int count, const std::string& browser = "browser") {
    return "ORVANE_HOST=h" + std::to_string(host) + ".example\nORVANE_BROWSER=" + browser +
           "\nORVANE_COUNT=" + std::to_string(count) + '\n';
  }

  bool isFull = false;  // the journal's socket
  std::vector<std::string> entries;
  DropRecords records;
};

TEST_F(DropRecordsTest, CountsRepeatsOfAUsersBrowserAndHost) {
  using Entries = std::vector<std::string>;
  EXPECT_EQ(record(1), Entries{entry(0, 1)});
  EXPECT_EQ(record(1, kAlice, "other"), Entries{entry(0, 1, "other")});
  EXPECT_EQ(record(1, kBob), Entries{entry(0, 1)});
  for (int i = 0; i < 3; ++i) EXPECT_EQ(record(1), Entries());
  EXPECT_EQ(record(1, kBob), Entries());
  EXPECT_EQ(writeCounts(), Entries({entry(0, 3), entry(0, 1)}));
  EXPECT_EQ(record(1), Entries()) << "goes on";
  EXPECT_EQ(writeCounts(), Entries{entry(0, 1)});
  EXPECT_EQ(writeCounts(), Entries());
  EXPECT_EQ(record(1), Entries{entry(0, 1)}) << "after a pause";
}

TEST_F(DropRecordsTest, LimitsTheEntriesOfEachUserAndCountsTheRest) {
  EXPECT_EQ(record(1000).size(), 300);
  EXPECT_EQ(record(300, kBob).size(), 300) << "another user";
  EXPECT_EQ(writeCounts(), std::vector<std::string>{"ORVANE_COUNT=700\n"});
  EXPECT_EQ(record(1000).size(), 10);
  EXPECT_EQ(writeCounts().size(), 1);
  for (uid_t user = 0; user < 100; ++user) record(1, user);
  for (uid_t user = 0; user < 2; ++user) EXPECT_EQ(record(300, 2000 + user).size(), user == 0 ? 300 - 1 : 0) << user;
  EXPECT_EQ(record(300, 3).size(), 299) << "one of the first users";
}

TEST_F(DropRecordsTest, CountsWhatAFullJournalDoesNotTake) {
  record(1);
  isFull = true;
  record(3);
  writeCounts();
  isFull = false;
  EXPECT_EQ(writeCounts(), std::vector<std::string>{"ORVANE_COUNT=3\n"});
  EXPECT_EQ(record(1), std::vector{entry(0, 1)});
}

TEST(DropRecords, WritesCountsWithoutAFurtherDrop) {
  static auto& records = *new DropRecords;  // not destroyed, because the thread below never ends
  static std::atomic<int> entries = 0;
  records.switchOn([](const std::string&) { return ++entries > 0; });
  std::thread([] { records.serve(std::chrono::milliseconds(1)); }).detach();
  for (int i = 0; i < 2; ++i) records.record("held.example", "browser", kAlice);
  while (entries < 2) std::this_thread::yield();
}

TEST(DropRecords, ReachTheJournalAfterAFailure) {
  const TemporaryFolder folder;
  const std::string path = folder.path() / "journal";
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const Descriptor journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  ASSERT_EQ(bind(journal.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  const rlimit none{0, files.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_FALSE(send_to_journal("first", path.c_str()));
  setrlimit(RLIMIT_NOFILE, &files);
  EXPECT_TRUE(send_to_journal("second", path.c_str()));
  char text[16] = {};
  recv(journal.get(), text, sizeof text, 0);
  EXPECT_STREQ(text, "second");
}

TEST_F(DropRecordsTest, EscapesWhatIsNotPrintableASCIIAndKeepsTheEndOfALongName) {
  records.record(std::string(300, 'x') + ".held.example", "browser", kAlice);
  EXPECT_EQ(entries.front(),
            "ORVANE_HOST=..." + std::string(242, 'x') + ".held.example\nORVANE_BROWSER=browser\nORVANE_COUNT=1\n");
  entries.clear();
  records.record("a\nMESSAGE=x\x1b\\", "f\xc3\xbcx", kAlice);
  EXPECT_EQ(entries.front(), "ORVANE_HOST=a\\x0aMESSAGE=x\\x1b\\x5c\nORVANE_BROWSER=f\\xc3\\xbcx\nORVANE_COUNT=1\n");
}

}  // namespace
}  // namespace orvane
