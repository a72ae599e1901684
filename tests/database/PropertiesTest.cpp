#include "database/Database.h"

namespace orvane {
namespace {

using Strings = std::vector<std::string>;

class PropertiesTest : public DatabaseTest {
 protected:
  PropertiesTest() {
    stand_in::files().now = 5000;
    db_hostname_add(text("a.example"));
    stand_in::take_log();
  }

  // The messages of one question about a.example.
  Strings ask(bool* blockable) {
    stand_in::take_log();
    *blockable = db_hostname_is_blockable("a.example");
    return stand_in::take_log();
  }
};

TEST_F(PropertiesTest, OnlyADateThatHasNotPassedSuspends) {
  const Value key = text("DontBlockUntil");
  const struct {
    Value properties;
    bool blockable;
    const char* message;
  } cases[] = {
      {until(5001), false, "comparison result: -1"},
      {until(5000), false, "comparison result: 0"},
      {until(4999), true, "comparison result: 1"},
      {nullptr, true, "DontBlockUntil not found"},
      {Value::dictionary({{key, text("2099-01-01")}}), true, "DontBlockUntil has wrong type"},
      {Value::dictionary({{key, Value::number(9999)}}), true, "DontBlockUntil has wrong type"},
      {Value::dictionary({{text("Hostname"), Value::date(9999)}}), true, "DontBlockUntil not found"},
      {text("no dictionary"), true, "DontBlockUntil not found"},
  };
  for (const auto& c : cases) {
    // A date ahead stands there before: properties are replaced, not merged.
    db_hostname_set_properties(text("a.example"), until(9999));
    EXPECT_EQ(db_hostname_set_properties(text("a.example"), c.properties), 0);
    bool blockable = !c.blockable;
    Strings messages = ask(&blockable);
    EXPECT_EQ(blockable, c.blockable) << c.message;
    ASSERT_EQ(messages.size(), 2U) << c.message;
    EXPECT_EQ(messages[0], "Database: db_has_hostname a.example : 1");
    EXPECT_EQ(messages[1], std::string("Database: _db_hostname_is_blockable ") + c.message);
  }
}

TEST_F(PropertiesTest, AHostWithoutADictionaryStaysBlockable) {
  const struct {
    Value stored;
    const char* message;
  } cases[] = {{nullptr, "not found"}, {text("x"), "has not properties dictionary"}};
  for (const auto& c : cases) {
    *db_hostnames->find(text("a.example")) = c.stored;
    bool blockable = false;
    Strings messages = ask(&blockable);
    EXPECT_TRUE(blockable);
    EXPECT_EQ(messages[1], std::string("Database: db_hostname_get_properties_dictionary: a.example ") + c.message);
    EXPECT_EQ(messages[2], "Database: _db_hostname_is_blockable a.example has not properties");
  }
}

TEST_F(PropertiesTest, AnUnknownHostIsNotAddedAndNotBlockable) {
  EXPECT_EQ(db_hostname_set_properties(text("b.example"), until(1)), 0);
  EXPECT_FALSE(db_hostname_is_blockable("b.example"));
  std::vector<int> held;
  for (const auto& entry : stand_in::log().entries) held.push_back(entry.mutexesHeld);
  EXPECT_EQ(
      stand_in::take_log(),
      (Strings{"Database: db_hostname_set_properties(b.example,{\n    DontBlockUntil = 2001-01-01 00:00:01 +0000;\n})",
               "Database: db_hostname_set_properties_dictionary: hostname b.example not found",
               "Database: db_has_hostname b.example : 0", "Database: _db_hostname_is_blockable: b.example not found"}));
  // The first before the lock; the others with it held.
  EXPECT_EQ(held, (std::vector<int>{0, 1, 1, 1}));
}

TEST_F(PropertiesTest, ReportsTheStatusOfGivingTheLockBack) {
  stand_in::nextUnlockStatus = 1;
  EXPECT_EQ(db_hostname_set_properties(text("a.example"), nullptr), 1);
}

TEST_F(PropertiesTest, ReadsTheKeyThroughItsReferenceAtEachCall) {
  db_hostname_set_properties(text("a.example"), Value::dictionary({{text("Later"), Value::date(9999)}}));
  EXPECT_TRUE(db_hostname_is_blockable("a.example"));
  kPLDontBlockUntilKey = "Later";
  EXPECT_FALSE(db_hostname_is_blockable("a.example"));
  kPLDontBlockUntilKey = "Never";
  bool blockable = false;
  EXPECT_EQ(ask(&blockable)[1], "Database: _db_hostname_is_blockable Never not found");
  kPLDontBlockUntilKey = DontBlockUntilKey;
  EXPECT_EQ(kPLDontBlockUntilKey.data(), DontBlockUntilKey.data());
  EXPECT_EQ(HostnameKey, "Hostname");
}

}  // namespace
}  // namespace orvane
