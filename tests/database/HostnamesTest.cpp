#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "database/Database.h"

namespace orvane {
namespace {

using Strings = std::vector<std::string>;

class HostnamesTest : public DatabaseTest {};

TEST_F(HostnamesTest, StartsEmptyAndOnlyThenWithAWorkingMutex) {
  stand_in::reset();
  db_init();
  // The browsers list is loaded before the mutex is one.
  Strings lines = stand_in::take_trace();
  auto loaded = std::find(lines.begin(), lines.end(), "log bad plist format");
  auto initialised = std::find(lines.begin(), lines.end(), "mutex initialised");
  EXPECT_LT(std::find(lines.begin(), lines.end(), "close"), initialised);
  EXPECT_EQ(loaded, lines.end());
  ASSERT_NE(initialised, lines.end());
  EXPECT_TRUE(db_spare->empty());
  EXPECT_FALSE(db_has_hostname("a.example"));
  db_term();
  EXPECT_FALSE(db_spare || db_hostnames || db_browsers);
  EXPECT_TRUE(db_log);
}

TEST_F(HostnamesTest, MatchesTheIdenticalNameOnly) {
  db_hostname_add(text("a.example"));
  for (const char* other : {"A.example", "a.example.", "www.a.example", "a.exampl", ""}) {
    EXPECT_FALSE(db_has_hostname(other)) << other;
  }
  EXPECT_TRUE(db_has_hostname("a.example"));
}

TEST_F(HostnamesTest, SetReplacesNamesAndDropsAllProperties) {
  db_hostname_add(text("c.example"));
  db_hostname_set_properties(text("c.example"), until(1000));
  db_hostname_set(names({"a.example", "c.example"}));
  EXPECT_EQ(db_hostnames->size(), 2U);
  EXPECT_TRUE(db_hostname_is_blockable("c.example"));
  db_hostname_set(names({}));
  EXPECT_TRUE(db_hostnames->empty());
}

TEST_F(HostnamesTest, AddingAgainKeepsProperties) {
  db_hostname_add(text("a.example"));
  db_hostname_set_properties(text("a.example"), until(1000));
  db_hostname_add(text("a.example"));
  EXPECT_EQ(db_hostnames->size(), 1U);
  EXPECT_FALSE(db_hostname_is_blockable("a.example"));
  // Removing it drops them.
  db_hostname_remove(text("a.example"));
  db_hostname_add(text("a.example"));
  EXPECT_TRUE(db_hostname_is_blockable("a.example"));
}

TEST_F(HostnamesTest, ValuesOfWrongTypesAddNothing) {
  const Value wrong[] = {nullptr, Value::number(3), Value::boolean(true), Value::array({text("a.example")}), until(0)};
  for (const Value& value : wrong) {
    db_hostname_add(value);
    db_hostname_remove(value);
    db_hostname_set_properties(value, value);
    EXPECT_TRUE(db_hostnames->empty()) << value.description();
    db_hostname_add(text("old.example"));
    db_hostname_set(value);
    EXPECT_TRUE(db_hostnames->empty()) << value.description();
  }
  db_hostname_set(Value::set({Value::number(7), text("a.example"), nullptr}));
  EXPECT_EQ(db_hostnames->size(), 1U);
}

TEST_F(HostnamesTest, KeepsEveryOtherNameThroughAnyOrderOfEdits) {
  // Against the plainest table there is, over few enough names that they collide and wrap.
  stand_in::log().enabled[LogLevel::Debug] = false;
  std::set<std::string> expected;
  uint32_t random = 1;
  for (int step = 0; step < 20000; ++step) {
    random = random * 1664525 + 1013904223;
    const std::string name = std::to_string(random >> 16 & 0x3f);
    if ((random >> 30) < 2) {
      db_hostname_add(text(name));
      expected.insert(name);
    } else {
      db_hostname_remove(text(name));
      expected.erase(name);
    }
    ASSERT_EQ(db_hostnames->size(), expected.size());
    if (step % 50 != 0) continue;
    for (int i = 0; i < 64; ++i) ASSERT_EQ(db_has_hostname(std::to_string(i)), expected.contains(std::to_string(i)));
    ASSERT_EQ(db_hostnames->dictionary().asDictionary().size(), expected.size());
  }
}

TEST_F(HostnamesTest, SaysWhatItDidAfterGivingTheLockBack) {
  db_hostname_add(text("a.example"));
  db_hostname_remove(text("b.example"));
  db_hostname_set(names({"c.example"}));
  db_has_hostname("c.example");
  db_has_hostname("C.example");
  for (const auto& entry : stand_in::log().entries) EXPECT_EQ(entry.mutexesHeld, 0) << entry.text;
  EXPECT_EQ(
      stand_in::take_log(),
      (Strings{"Database: db_hostname_add: a.example",  //
               "Database: db_hostnames: {\n    a.example = {\n    };\n}", "Database: db_hostname_removed: b.example",
               "Database: db_hostnames: {\n    a.example = {\n    };\n}",
               "Database: db_hostname_set: {(\n    c.example\n)}",
               "Database: db_hostnames: {\n    c.example = {\n    };\n}", "Database: db_has_hostname c.example : 1",
               "Database: db_has_hostname C.example : 0"}));
  stand_in::log().enabled[LogLevel::Debug] = false;
  db_hostname_set(names({}));
  EXPECT_EQ(stand_in::take_log(), Strings{});
}

TEST_F(HostnamesTest, AVerdictNeverSeesAHalfReplacedList) {
  stand_in::log().enabled[LogLevel::Debug] = false;
  Value::Set odd, even;
  for (int i = 0; i < 2000; ++i) (i % 2 == 0 ? even : odd).insert(text(std::to_string(i)));
  const Value lists[] = {Value::set(even), Value::set(odd)};
  db_hostname_set(lists[0]);
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 200; ++i) db_hostname_set(lists[i % 2]);
    done = true;
  });
  while (!done) {
    DatabaseLock lock;
    ASSERT_EQ(db_hostnames->size(), 1000U);
    ASSERT_NE(db_has_hostname("0"), db_has_hostname("1"));
  }
  writer.join();
}

}  // namespace
}  // namespace orvane
