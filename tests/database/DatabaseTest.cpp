#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "database/Database.h"

namespace orvane {
namespace {

using stand_in::files;
using stand_in::take_log;

class HostnamesTest : public DatabaseTest {};

TEST_F(HostnamesTest, MatchesOnlyIdenticalNames) {
  db_hostname_add(text("a.example"));
  for (const char* other : {"A.example", "a.example.", "www.a.example", "a.exampl", ""}) {
    EXPECT_FALSE(db_has_hostname(other)) << other;
  }
  EXPECT_TRUE(db_has_hostname("a.example"));
}

TEST_F(HostnamesTest, KeepsPropertiesOnlyWhenAddedAgain) {
  const Value name = text("a.example");
  for (const char* edit : {"add", "set", "remove and add"}) {
    db_hostname_set(Value::set({name, text("c.example")}));
    db_hostname_set_properties(name, until(1000));
    if (*edit == 's') db_hostname_set(Value::set({name, text("b.example")}));
    if (*edit == 'r') db_hostname_remove(name);
    if (*edit != 's') db_hostname_add(name);
    EXPECT_EQ(db_hostnames->size(), 2U) << edit;
    EXPECT_EQ(db_hostname_is_blockable("a.example"), *edit != 'a') << edit;
  }
}

TEST_F(HostnamesTest, AddsOnlyStrings) {
  const Value array = Value::array({text("a.example")});
  const Value wrong[] = {nullptr, Value::number(3), Value::boolean(true), array, until(0), Value::set({})};
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

TEST_F(HostnamesTest, KeepsOtherNamesThroughRandomEdits) {
  // With only 64 names the table stays small. So names collide, and some searches wrap around from its end.
  stand_in::log.disabled = {LogLevel::Debug};
  std::set<std::string> expected;
  uint32_t random = 1;
  for (int step = 0; step < 20000; ++step) {
    random = random * 1664525 + 1013904223;
    const std::string name = std::to_string(random >> 16 & 0x3f);
    const bool adds = (random >> 30) < 2;
    adds ? db_hostname_add(text(name)) : db_hostname_remove(text(name));
    adds ? (void)expected.insert(name) : (void)expected.erase(name);
    ASSERT_EQ(db_hostnames->size(), expected.size());
    for (int i = 0; step % 50 == 0 && i < 64; ++i) {
      ASSERT_EQ(db_has_hostname(std::to_string(i)), expected.contains(std::to_string(i)));
    }
  }
  EXPECT_EQ(db_hostnames->dictionary().asDictionary().size(), expected.size());
}

TEST_F(HostnamesTest, LogsEditsAfterUnlocking) {
  db_hostname_add(text("a.example"));
  db_hostname_remove(text("b.example"));
  db_hostname_set(Value::set({text("c.example")}));
  db_has_hostname("c.example");
  db_has_hostname("C.example");
  const std::string table = "db_hostnames: {\n    ", end = " = {\n    };\n} | ";
  EXPECT_EQ(take_log("Database"), "db_hostname_add: a.example | " + table + "a.example" + end +
                                      "db_hostname_removed: b.example | " + table + "a.example" + end +
                                      "db_hostname_set: {(\n    c.example\n)} | " + table + "c.example" + end +
                                      "db_has_hostname c.example : 1 | db_has_hostname C.example : 0");
}

TEST_F(HostnamesTest, LocksOnceForEachAccess) {
  stand_in::log.disabled = {LogLevel::Debug};
  const Value name = text("a.example"), names = Value::set({name});
  const std::pair<const char*, std::function<void()>> accesses[] = {
      {"add", [&] { db_hostname_add(name); }},
      {"remove", [&] { db_hostname_remove(name); }},
      {"set", [&] { db_hostname_set(names); }},
      {"properties", [&] { db_hostname_set_properties(name, nullptr); }},
      {"has", [&] { db_has_hostname("a"); }},
      {"add a browser", [&] { db_browser_add(name); }},
      {"remove a browser", [&] { db_browser_remove(name); }},
      {"set browsers", [&] { db_browsers_set(names); }},
      {"set browsers from a list", [&] { db_browser_set_from_plist(Value::array({name})); }},
      {"is a browser", [&] { db_is_browser("a"); }},
  };
  for (const auto& [what, access] : accesses) {
    const int before = stand_in::mutexLocks;
    access();
    EXPECT_EQ(stand_in::mutexLocks, before + 1) << what;
    EXPECT_EQ(stand_in::heldLocks, "") << what;
  }
  EXPECT_EQ(take_log(), "");
}

const std::string kAsked = "+db_has_hostname a.example : 1 | +";

class PropertiesTest : public DatabaseTest {
 protected:
  PropertiesTest() {
    files.now = 5000;
    db_hostname_add(text("a.example"));
  }

  // The messages of db_hostname_is_blockable, and its result. "+" begins a message that is logged under the lock.
  static std::pair<std::string, bool> ask() {
    take_log();
    const bool blockable = db_hostname_is_blockable("a.example");
    return {take_log("Database"), blockable};
  }
};

TEST_F(PropertiesTest, SuspendsUntilTheDateHasPassed) {
  const Value key = text("DontBlockUntil");
  const std::tuple<const char*, Value, bool, std::string> cases[] = {
      {"later", until(5001), false, "comparison result: -1"},
      {"now", until(5000), false, "comparison result: 0"},
      {"earlier", until(4999), true, "comparison result: 1"},
      {"no properties", nullptr, true, "DontBlockUntil not found"},
      {"nil", Value::dictionary({{key, nullptr}}), true, "DontBlockUntil not found"},
      {"a string", Value::dictionary({{key, text("2099-01-01")}}), true, "DontBlockUntil has wrong type"},
      {"a number", Value::dictionary({{key, Value::number(9999)}}), true, "DontBlockUntil has wrong type"},
      {"another key", Value::dictionary({{text("Hostname"), Value::date(9999)}}), true, "DontBlockUntil not found"},
      {"no dictionary", text("no dictionary"), true, "DontBlockUntil not found"},
  };
  for (const auto& [what, properties, blockable, message] : cases) {
    // This date must not survive the next call, which must replace the properties, not merge them.
    db_hostname_set_properties(text("a.example"), until(9999));
    EXPECT_EQ(db_hostname_set_properties(text("a.example"), properties), 0) << what;
    EXPECT_EQ(ask(), std::pair(kAsked + "_db_hostname_is_blockable " + message, blockable)) << what;
  }
}

TEST_F(PropertiesTest, ReturnsTheStatusOfUnlocking) {
  stand_in::nextUnlockStatus = 1;
  EXPECT_EQ(db_hostname_set_properties(text("a.example"), nullptr), 1);
}

TEST_F(PropertiesTest, BlocksHostsWithoutPropertiesDictionary) {
  for (const auto& [stored, lacks] : {std::pair(Value(), "not found"), {text("x"), "has not properties dictionary"}}) {
    *db_hostnames->find(text("a.example")) = stored;
    EXPECT_EQ(ask(), std::pair(kAsked + "db_hostname_get_properties_dictionary: a.example " + lacks +
                                   " | +_db_hostname_is_blockable a.example has not properties",
                               true));
  }
}

TEST_F(PropertiesTest, IgnoresPropertiesOfUnknownHosts) {
  take_log();
  EXPECT_EQ(db_hostname_set_properties(text("b.example"), until(1)), 0);
  EXPECT_FALSE(db_hostname_is_blockable("b.example"));
  EXPECT_EQ(take_log("Database"),
            "db_hostname_set_properties(b.example,{\n    DontBlockUntil = 2001-01-01 00:00:01 +0000;\n}) | "
            "+db_hostname_set_properties_dictionary: hostname b.example not found | "
            "+db_has_hostname b.example : 0 | +_db_hostname_is_blockable: b.example not found");
}

TEST_F(PropertiesTest, ReadsTheDateThroughTheExportedKey) {
  EXPECT_EQ(kPLDontBlockUntilKey.data(), DontBlockUntilKey.data());
  db_hostname_set_properties(text("a.example"), Value::dictionary({{text("Later"), Value::date(9999)}}));
  EXPECT_TRUE(ask().second);
  kPLDontBlockUntilKey = "Later";
  EXPECT_FALSE(ask().second);
  kPLDontBlockUntilKey = "Never";
  EXPECT_EQ(ask(), std::pair(kAsked + "_db_hostname_is_blockable Never not found", true));
  kPLDontBlockUntilKey = DontBlockUntilKey;
  EXPECT_EQ(DontBlockUntilKey, "DontBlockUntil");
  EXPECT_EQ(HostnameKey, "Hostname");
}

class BrowsersTest : public DatabaseTest {
 protected:
  // Loads the browser list again. Returns the logged messages.
  static std::string load() {
    take_log();
    stand_in::take_trace();
    load_browsers_id();
    return take_log();
  }
};

TEST_F(BrowsersTest, ReportsEachFailureOfTheLoad) {
  const std::tuple<const char*, std::string, bool> cases[] = {
      {"resource", "browsers file not found", false},
      {"stream", "cannot open file", false},
      {"open", "cannot read file", false},
      {"read", "cannot read stream", true},
      {"data", "cannot create data", true},
      {"parse", "error creating property list : line 3", true},
  };
  db_browser_add(text("org.browser"));
  for (const auto& [step, message, closes] : cases) {
    files.fails = step;
    EXPECT_EQ(load(), "Database! " + message);
    EXPECT_EQ(stand_in::take_trace().find("close") != std::string::npos, closes) << message;
    EXPECT_EQ(stand_in::alive("ReadStream") + stand_in::alive("Data") + stand_in::alive("NSError"), 0) << message;
    EXPECT_TRUE(db_is_browser("org.browser")) << message;
  }
  files.fails = files.content = "";
  EXPECT_EQ(load(), "Database! cannot read stream");
}

TEST_F(BrowsersTest, ReadsAtMostAKilobyteOnceUnlessTheStreamOffersItsBuffer) {
  files.content.assign(5000, 'x');
  load();
  EXPECT_EQ(files.parsedLength, 1024U);
  EXPECT_EQ(stand_in::take_trace(), "read 1024 | release Data | close | release ReadStream | log empty plist file");
  files.offersBuffer = true;
  load();
  EXPECT_EQ(files.parsedLength, 5000U);
}

TEST_F(BrowsersTest, LoadsTheListOfAnotherBundle) {
  files.propertyList = Value::array({text("x")});
  EXPECT_EQ(load_browsers_id_file("file:///other"), files.propertyList);
  EXPECT_EQ(files.bundleURL, "file:///other");
  EXPECT_EQ(files.resourceURL, "file:///Browsers.plist");
  EXPECT_EQ(stand_in::alive("Bundle"), 1);  // the main bundle
  files.fails = "bundle";
  EXPECT_TRUE(load_browsers_id_file("file:///other").isNil());
  EXPECT_EQ(take_log(), "Database! cannot create bundle (file:///other)");
}

TEST_F(BrowsersTest, ReplacesIdentifiersByTheStringsOfTheList) {
  db_browser_add(text("old"));
  files.propertyList = Value::array({text("x"), Value::number(1), text("x"), nullptr, text("y")});
  const std::string messages = load();
  EXPECT_EQ(db_browsers->size(), 2U);
  EXPECT_FALSE(db_is_browser("old"));
  EXPECT_EQ(messages, "Database: db_browser_set_from_plist: " + files.propertyList.description() +
                          " | Database: db_browsers: " + db_browsers->dictionary().description());
}

TEST_F(BrowsersTest, KeepsIdentifiersWhenTheListHasNoElements) {
  db_browser_add(text("old"));
  files.propertyList = Value::array({});
  EXPECT_EQ(load(), "Database: empty plist file");
  files.propertyList = Value::dictionary({{text("x"), text("y")}});
  EXPECT_EQ(load(), "Database! bad plist format | Database: empty plist file");
  EXPECT_TRUE(db_is_browser("old"));
}

TEST_F(BrowsersTest, MatchesEndingsExactly) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"org.Browser", "org.Browser", true},
      {"org.Browser", "my.org.Browser", true},
      {"org.Browser", "org.browser", false},
      {"org.Browser", "org.Browser2", false},
      {"fox", "org.firefox", true},
      {"org.firefox", "fox", false},
      {"", "anything", false},
      {"", "", false},
  };
  for (const auto& [entry, identifier, found] : cases) {
    db_browsers_set(Value::set({text(entry)}));
    EXPECT_EQ(db_is_browser(identifier), found) << entry << " / " << identifier;
  }
  // It is enough that one of several entries matches.
  db_browsers_set(Value::set({text("a"), text("b"), text("fox"), text("d"), text("e")}));
  EXPECT_TRUE(db_is_browser("firefox"));
}

TEST_F(BrowsersTest, LogsEditsWithoutTheWholeTable) {
  db_browser_add(text("x"));
  db_browser_add(nullptr);
  db_browser_remove(text("unknown"));
  db_browser_remove(text("x"));
  EXPECT_FALSE(db_is_browser("x"));
  db_browsers_set(Value::set({text("z")}));
  db_browsers_set(Value::number(1));
  EXPECT_FALSE(db_is_browser("z"));
  EXPECT_EQ(take_log("Database"),
            "db_browser_add: x | db_browser_add: (null) | db_browser_remove: unknown | db_browser_remove: x | "
            "db_is_browser x : 0 | db_browsers_set: {(\n    z\n)} | db_browsers_set: 1 | db_is_browser z : 0");
}

}  // namespace
}  // namespace orvane
