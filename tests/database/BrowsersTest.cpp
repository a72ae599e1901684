#include "database/Database.h"

namespace orvane {
namespace {

using Strings = std::vector<std::string>;
using stand_in::files;

class BrowsersTest : public DatabaseTest {
 protected:
  // Loads once more, after a change to the files; the messages.
  static Strings load() {
    stand_in::take_log();
    stand_in::take_trace();
    load_browsers_id();
    return stand_in::take_log();
  }
};

TEST_F(BrowsersTest, EveryFailureOfTheLoadSaysWhatItWasAndLeavesNothingAlive) {
  struct Case {
    std::function<void()> arrange;
    const char* message;
    bool closes;
  };
  const Case cases[] = {
      {[] { files().resourceMissing = true; }, "Database! browsers file not found", false},
      {[] { files().streamFails = true; }, "Database! cannot open file", false},
      {[] { files().openFails = true; }, "Database! cannot read file", false},
      {[] { files().readFails = true; }, "Database! cannot read stream", true},
      {[] { files().content = ""; }, "Database! cannot read stream", true},
      {[] { files().dataFails = true; }, "Database! cannot create data", true},
      {[] { files().parserError = "line 3"; }, "Database! error creating property list : line 3", true},
  };
  db_browser_add(text("org.browser"));
  for (const Case& c : cases) {
    const stand_in::FileState before = files();
    c.arrange();
    EXPECT_EQ(load(), Strings{c.message});
    Strings lines = stand_in::take_trace();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "close"), c.closes ? 1 : 0) << c.message;
    for (const char* kind : {"ReadStream", "Data", "NSError"}) EXPECT_EQ(stand_in::alive(kind), 0) << c.message << kind;
    EXPECT_TRUE(db_is_browser("org.browser")) << c.message;
    files() = before;
  }
}

TEST_F(BrowsersTest, ReadsOnceAndAtMostAKilobyteUnlessTheStreamOffersItsBuffer) {
  files().content.assign(5000, 'x');
  load();
  EXPECT_EQ(files().parsedLength, 1024U);
  EXPECT_EQ(stand_in::take_trace(),
            (Strings{"read 1024", "release Data", "close", "release ReadStream", "log empty plist file"}));
  files().offersBuffer = true;
  load();
  EXPECT_EQ(files().parsedLength, 5000U);
}

TEST_F(BrowsersTest, TakesABundleFromItsURL) {
  files().propertyList = Value::array({text("x")});
  EXPECT_EQ(load_browsers_id_file("file:///other").asArray().size(), 1U);
  EXPECT_EQ(files().bundleURL, "file:///other");
  EXPECT_EQ(files().resourceURL, "file:///Browsers.plist");
  EXPECT_EQ(stand_in::alive("Bundle"), 1);  // the main one
  files().bundleFails = true;
  stand_in::take_log();
  EXPECT_TRUE(load_browsers_id_file("file:///other").isNil());
  EXPECT_EQ(stand_in::take_log(), Strings{"Database! cannot create bundle (file:///other)"});
}

TEST_F(BrowsersTest, KeepsTheStringsOfTheListAndReplacesTheOldOnes) {
  db_browser_add(text("old"));
  files().propertyList = Value::array({text("x"), Value::number(1), text("x"), nullptr, text("y")});
  Strings messages = load();
  EXPECT_EQ(db_browsers->size(), 2U);
  EXPECT_FALSE(db_is_browser("old"));
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0], "Database: db_browser_set_from_plist: " + files().propertyList.description());
  EXPECT_EQ(messages[1], "Database: db_browsers: " + db_browsers->dictionary().description());

  // An empty list and one of the wrong type change nothing.
  files().propertyList = Value::array({});
  EXPECT_EQ(load(), Strings{"Database: empty plist file"});
  files().propertyList = Value::dictionary({{text("x"), text("y")}});
  EXPECT_EQ(load(), (Strings{"Database! bad plist format", "Database: empty plist file"}));
  EXPECT_EQ(db_browsers->size(), 2U);
}

TEST_F(BrowsersTest, MatchesEndingsToTheLetter) {
  const struct {
    const char* entry;
    const char* identifier;
    bool found;
  } cases[] = {
      {"org.example.Browser", "org.example.Browser", true},
      {"org.example.Browser", "my.org.example.Browser", true},
      {"org.example.Browser", "org.example.browser", false},
      {"org.example.Browser", "org.example.Browser2", false},
      {"fox", "org.firefox", true},
      {"org.firefox", "fox", false},
      {"", "anything", false},
      {"", "", false},
  };
  for (const auto& c : cases) {
    db_browsers_set(names({c.entry}));
    EXPECT_EQ(db_is_browser(c.identifier), c.found) << c.entry << " / " << c.identifier;
  }
  // One match among several, wherever it stands.
  db_browsers_set(names({"a", "b", "c", "fox", "d", "e"}));
  EXPECT_TRUE(db_is_browser("firefox"));
  db_browsers_set(names({}));
  EXPECT_FALSE(db_is_browser("firefox"));
}

TEST_F(BrowsersTest, EditsSayWhatTheyDidWithoutTheWholeTable) {
  db_browser_add(text("x"));
  db_browser_add(nullptr);
  db_browser_remove(text("unknown"));
  db_browsers_set(Value::set({text("z"), Value::number(2)}));
  db_is_browser("a.z");
  for (const auto& entry : stand_in::log().entries) EXPECT_EQ(entry.mutexesHeld, 0) << entry.text;
  Strings messages = stand_in::take_log();
  ASSERT_EQ(messages.size(), 5U);
  EXPECT_EQ(messages[0], "Database: db_browser_add: x");
  EXPECT_EQ(messages[1], "Database: db_browser_add: (null)");
  EXPECT_EQ(messages[2], "Database: db_browser_remove: unknown");
  EXPECT_TRUE(messages[3].starts_with("Database: db_browsers_set: {("));
  EXPECT_EQ(messages[4], "Database: db_is_browser a.z : 1");
  EXPECT_EQ(db_browsers->size(), 1U);
}

}  // namespace
}  // namespace orvane
