#include <functional>
#include <regex>
#include <set>
#include <string>
#include <tuple>

#include "database/Database.h"
#include "service/OrvaneController.h"
#include "service/XPCServiceDelegate.h"
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
using stand_in::take_log;
using stand_in::take_trace;

// Traces the calls to it.
struct Connection : NSXPCConnection {
  const Protocol* protocol = nullptr;
  OrvaneSECommunication* exported = nullptr;
  std::function<void()> invalidated, interrupted;

  void setExportedInterface(const NSXPCInterface& made) override { keep("interface", protocol, made.protocol()); }
  void setExportedObject(OrvaneSECommunication* object) override { keep("object", exported, object); }
  void activate() override { stand_in::trace("activate"); }
  void setInvalidationHandler(std::function<void()> handler) override { keep("invalidation", invalidated, handler); }
  void setInterruptionHandler(std::function<void()> handler) override { keep("interruption", interrupted, handler); }

  static void keep(const char* step, auto& place, auto content) {
    stand_in::trace(step);
    place = content;
  }
};

class StartTest : public DatabaseTest {
 protected:
  StartTest() {
    appFilterStatus = 0;
    stand_in::files.propertyList = Value::array({text("b")});
    nameService(text("org.orvane.test"));
  }

  static void nameService(const Value& name) {
    stand_in::files.information = Value::dictionary({{text("NSEndpointSecurityMachServiceName"), name}});
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

TEST_F(StartTest, StartsWithDisabledLogLevels) {
  const std::tuple<LogLevel, std::string, std::string> cases[] = {
      {LogLevel::Info, "log OrvaneSE started\\.\\.\\. \\| ", "default! OrvaneSE started..."},
      {LogLevel::Error, "", "default? starting extensions..."},
  };
  for (const auto& [disabled, logs, messages] : cases) {
    stand_in::log.disabled = {disabled, LogLevel::Debug};
    take_trace();
    EXPECT_THROW(orvane_main(), stand_in::MainThreadParked);
    EXPECT_TRUE(
        traceMatches("[^]*mutex initialised \\| startSystemExtensionMode[^]* \\| listener delegate \\| "
                     "listener resume \\| " +
                     logs + "dispatch_main"))
        << messages;
    EXPECT_EQ(take_log(), messages);
  }
}

TEST_F(StartTest, EndsBeforeTheFilterWhenTheApplicationFilterFails) {
  appFilterStatus = 1;
  EXPECT_EQ(orvane_main(), 1);
  EXPECT_TRUE(traceMatches("log starting extensions[^]* \\| mutex initialised"));  // nothing later
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

TEST_F(StartTest, PassesAnyServiceNameOn) {
  for (const Value& name : {Value(), Value::number(5)}) {
    nameService(name);
    xpc_run();
    EXPECT_EQ(listener.name, name);
  }
  EXPECT_EQ(take_log(), "");
}

TEST_F(StartTest, ConnectsEveryClientToTheSharedController) {
  xpc_run();
  take_trace();
  auto first = Ref<Connection>::adopt(new Connection), second = Ref<Connection>::adopt(new Connection);
  EXPECT_TRUE(listener.delegate->shouldAcceptNewConnection(*listener.listener, *first));
  EXPECT_EQ(take_trace(), "interface | object | activate | invalidation | interruption");
  EXPECT_EQ(first->protocol, &OrvaneSECommunication::kProtocol);
  EXPECT_TRUE(listener.delegate->shouldAcceptNewConnection(*listener.listener, *second));
  EXPECT_EQ(first->exported, OrvaneController::shared());
  EXPECT_EQ(second->exported, OrvaneController::shared());

  first->exported->addHostname(text("a.example"));
  take_log();
  first->invalidated();
  second->interrupted();
  EXPECT_EQ(take_log(),
            "default* connection invalidated | default? receive stop command | "
            "default* connection interrupted | default? receive stop command");
  EXPECT_TRUE(db_has_hostname("a.example"));
}

}  // namespace
}  // namespace orvane
