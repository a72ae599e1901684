#include <regex>
#include <string>

#include "database/Database.h"
#include "service/app_filter.h"
#include "service/xpc_run.h"

// Compiles the program's main() under another name.
#define main orvane_main
#include "service/main.cpp"
#undef main

namespace orvane {

static int32_t appFilterStatus = 0;
int32_t app_filter_init() { return appFilterStatus; }

namespace {

using stand_in::listener;
using stand_in::take_trace;

class StartTest : public DatabaseTest {
 protected:
  StartTest() {
    appFilterStatus = 0;
    stand_in::files.propertyList = Value::array({text("b")});
    const Value key = text("NSEndpointSecurityMachServiceName");
    stand_in::files.information = Value::dictionary({{key, text("org.orvane.test")}});
  }

  static bool traceMatches(const std::string& pattern) { return std::regex_match(take_trace(), std::regex(pattern)); }
};

TEST_F(StartTest, StartsModulesInOrder) {
  stand_in::filter.startStatus = 5;  // ignored by main()
  EXPECT_THROW(orvane_main(), stand_in::MainThreadParked);
  EXPECT_TRUE(
      traceMatches("log starting extensions\\.\\.\\. [^]*log db_browsers: [^]* \\| mutex initialised \\| "
                   "startSystemExtensionMode[^]* \\| listener delegate \\| listener resume \\| "
                   "log OrvaneSE started\\.\\.\\. \\| dispatch_main"));
  EXPECT_EQ(listener.name, text("org.orvane.test"));
  for (const char* name : {"FilterDataProvider", "PLSafariFilterDataProvider"}) {
    ASSERT_TRUE(stand_in::filter.classes.contains(name)) << name;
    EXPECT_TRUE(stand_in::filter.classes[name]());
  }
  EXPECT_EQ(web_filter_init(), 5);
}

TEST_F(StartTest, EndsBeforeTheFilterWhenTheApplicationFilterFails) {
  appFilterStatus = 1;
  EXPECT_EQ(orvane_main(), 1);
  EXPECT_TRUE(traceMatches("log starting extensions[^]* \\| mutex initialised"));  // no later step
  EXPECT_TRUE(db_is_browser("b"));                                                 // the database still works
}

TEST_F(StartTest, ReleasesTheOldListenerAfterStoringTheNewOne) {
  xpc_run();
  const int objects = stand_in::aliveObjects;
  const auto* delegate = listener.delegate.get();
  take_trace();
  xpc_run();
  EXPECT_EQ(take_trace(), "an old listener goes | release NSXPCListener | listener delegate | listener resume");
  EXPECT_NE(listener.delegate.get(), delegate);
  EXPECT_EQ(stand_in::aliveObjects, objects);
}

}  // namespace
}  // namespace orvane
