#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <tuple>

#include "companion/watch/PathWatch.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

class PathWatchTest : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return folder_.path() / name; }
  void write(const std::string& name, const std::string& text) const { std::ofstream(path(name)) << text; }
  void rename(const std::string& from, const std::string& to) const { std::filesystem::rename(path(from), path(to)); }

  const TemporaryFolder folder_;
};

bool is_readable(const PathWatch& watch) {
  pollfd waited{watch.descriptor(), POLLIN, 0};
  return poll(&waited, 1, 0) == 1;
}

// Whether the watch reports an event now.
bool reports(PathWatch& watch) { return is_readable(watch) && watch.readEvents(); }

// A program that writes without a pause must not keep the caller in readEvents().
TEST_F(PathWatchTest, ReadsABoundedNumberOfEventsAtATime) {
  PathWatch watch({path("list")});
  for (int i = 0; i < 1000; ++i) write(std::to_string(i), "");
  EXPECT_FALSE(watch.readEvents());
  EXPECT_TRUE(is_readable(watch));
  write("list", "");
  bool isReported = false;
  while (is_readable(watch)) isReported = watch.readEvents() || isReported;
  EXPECT_TRUE(isReported) << "the event behind the others";
  EXPECT_EQ(watch.fault(), "");
}

TEST_F(PathWatchTest, ReportsEachChangeOfAWatchedFile) {
  write("list", "a");
  write("other", "a");
  std::filesystem::create_directory(path("lists.d"));
  PathWatch watch({path("list"), path("lists.d/*.list"), path("later/below/list")});
  const std::tuple<const char*, std::function<void()>, bool> kSteps[] = {
      {"nothing", [] {}, false},
      {"a write into the file", [&] { write("list", "b"); }, true},
      {"a replacement", [&] { write("new", "c"), rename("new", "list"); }, true},
      {"a write into the new file", [&] { write("list", "d"); }, true},
      {"another file in the folder", [&] { write("other", "b"), rename("other", "other2"); }, false},
      {"the removal", [&] { std::filesystem::remove(path("list")); }, true},
      {"a new file", [&] { write("list", "e"); }, true},
      {"a file of the pattern", [&] { write("lists.d/a.list", "a"); }, true},
      {"a write into this file", [&] { write("lists.d/a.list", "bb"); }, true},
      {"a file of another ending", [&] { write("lists.d/a.txt", "a"); }, false},
      {"a hidden file", [&] { write("lists.d/.b.list", "a"); }, false},
      {"the folder's removal", [&] { std::filesystem::remove_all(path("lists.d")); }, true},
      {"a missing folder and its file",
       [&] { std::filesystem::create_directories(path("later/below")), write("later/below/list", "a"); }, true},
      {"a write into this file", [&] { write("later/below/list", "b"); }, true},
      {"a folder under another name", [&] { rename("later", "gone"); }, true},
  };
  for (const auto& [description, change, isReported] : kSteps) {
    change();
    EXPECT_EQ(reports(watch), isReported) << description;
    while (reports(watch)) continue;
  }
}

TEST_F(PathWatchTest, AsksToLookAtTheFilesEveryTwoSecondsWhileItCannotWatch) {
  using namespace std::chrono_literals;
  // At the first call of a method of a class, UndefinedBehaviorSanitizer opens a pipe to check the object. So this call
  // comes before the limit.
  const std::string file = path("list");
  EXPECT_EQ(PathWatch({file}).fault(), "");
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const auto start = PathWatch::Clock::now();
  PathWatch watch({file});
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_NE(watch.fault(), "");
  const auto due = watch.lookAt();
  ASSERT_GE(due, start + 2s);
  ASSERT_LT(due, start + 60s);
  EXPECT_FALSE(watch.isLookDue()) << "before that time";
  std::this_thread::sleep_until(due);
  EXPECT_TRUE(watch.isLookDue());
  EXPECT_EQ(watch.fault(), "") << "it has tried again to watch";
  EXPECT_FALSE(watch.isLookDue()) << "after the fault";
}

}  // namespace
}  // namespace orvane
