#include <gtest/gtest.h>

#include "platform/StandIn.h"
#include "service/OrvaneController.h"
#include "service/XPCServiceDelegate.h"
#include "service/app_filter.h"
#include "service/xpc_run.h"

// The program's own main, under another name.
#define main orvane_main
#include "service/main.cpp"
#undef main

namespace orvane {

namespace {

int32_t appFilterStatus = 0;

}  // namespace

int32_t app_filter_init() { return appFilterStatus; }

namespace {

using stand_in::listener;
using Strings = std::vector<std::string>;

class StartTest : public testing::Test {
 protected:
  // What happened, the handle of a database that an earlier case started aside.
  static Strings trace() {
    Strings lines = stand_in::take_trace();
    std::erase(lines, "release LogHandle");
    return lines;
  }

  StartTest() {
    stand_in::reset();
    appFilterStatus = 0;
    stand_in::files().resourceMissing = true;
    stand_in::files().information =
        Value::dictionary({{Value::string("NSEndpointSecurityMachServiceName"), Value::string("org.orvane.test")}});
  }
  ~StartTest() override { db_term(); }
};

TEST_F(StartTest, BringsTheModulesUpInOrderAndParks) {
  stand_in::filter().startStatus = 5;  // which nobody looks at
  EXPECT_THROW(orvane_main(), stand_in::MainThreadParked);
  EXPECT_EQ(trace(), (Strings{"log starting extensions...", "log browsers file not found", "mutex initialised",
                              "startSystemExtensionMode", "listener delegate", "listener resume",
                              "log OrvaneSE started...", "dispatch_main"}));
  EXPECT_EQ(stand_in::take_log(), (Strings{"default: starting extensions...", "Database! browsers file not found",
                                           "default! OrvaneSE started..."}));
  EXPECT_EQ(listener().name, Value::string("org.orvane.test"));
  for (const char* name : {"FilterDataProvider", "PLSafariFilterDataProvider"}) {
    ASSERT_TRUE(stand_in::filter().classes.contains(name)) << name;
    EXPECT_TRUE(stand_in::filter().classes[name]());
  }
  EXPECT_EQ(web_filter_init(), 5);
}

TEST_F(StartTest, EndsBeforeTheFilterWhenTheApplicationFilterFails) {
  appFilterStatus = 1;
  EXPECT_EQ(orvane_main(), 1);
  EXPECT_EQ(trace(), (Strings{"log starting extensions...", "log browsers file not found", "mutex initialised"}));
  db_hostname_add(Value::string("a"));
  EXPECT_TRUE(db_has_hostname("a"));  // the database runs
}

TEST_F(StartTest, RunsEveryStepWithInfoOff) {
  stand_in::log().enabled = {{LogLevel::Error, true}};
  stand_in::files().resourceMissing = false;
  stand_in::files().content = "x";
  stand_in::files().propertyList = Value::array({});
  EXPECT_THROW(orvane_main(), stand_in::MainThreadParked);
  EXPECT_EQ(stand_in::take_log(), Strings{"default! OrvaneSE started..."});
}

TEST_F(StartTest, AListenerIsReplacedBeforeTheOldOneGoes) {
  db_init();
  xpc_run();
  const int objects = stand_in::alive_objects();
  const NSXPCListenerDelegate* delegate = listener().delegate;
  stand_in::take_trace();
  xpc_run();
  EXPECT_EQ(trace(),
            (Strings{"release NSXPCListener", "an old listener went", "listener delegate", "listener resume"}));
  EXPECT_NE(listener().delegate, delegate);
  EXPECT_EQ(stand_in::alive_objects(), objects);
}

// A reference that is looked at while its old object is destroyed.
struct Watched : NSObject {
  ~Watched() override {
    if (holder != nullptr) seen = holder->get();
  }
  static Ref<Watched>* holder;
  static Watched* seen;
};
Ref<Watched>* Watched::holder = nullptr;
Watched* Watched::seen = nullptr;

TEST_F(StartTest, AReferenceHoldsTheNewObjectBeforeTheOldOneIsReleased) {
  db_init();
  auto holder = Ref<Watched>::adopt(new Watched);
  Watched::holder = &holder;
  auto next = Ref<Watched>::adopt(new Watched);
  Watched* const expected = next.get();
  holder = std::move(next);
  Watched::holder = nullptr;
  EXPECT_EQ(Watched::seen, expected);
}

TEST_F(StartTest, AnyServiceNameIsPassedOn) {
  db_init();
  for (const Value& name : {Value(), Value::number(5)}) {
    stand_in::files().information = Value::dictionary({{Value::string("NSEndpointSecurityMachServiceName"), name}});
    EXPECT_EQ(XPCServiceDelegate::systemExtensionMachServiceName(), name);
    xpc_run();
    EXPECT_EQ(listener().name, name);
  }
  EXPECT_EQ(stand_in::take_log(), Strings{"Database! browsers file not found"});
}

TEST_F(StartTest, WiresEveryConnectionToTheSharedObject) {
  db_init();
  xpc_run();
  stand_in::take_trace();
  auto first = Ref<stand_in::Connection>::adopt(new stand_in::Connection);
  auto second = Ref<stand_in::Connection>::adopt(new stand_in::Connection);
  EXPECT_TRUE(listener().delegate->shouldAcceptNewConnection(*listener().listener, *first));
  // The handlers come after the activation.
  EXPECT_EQ(trace(), (Strings{"exported interface", "exported object", "activate", "invalidation handler",
                              "interruption handler"}));
  EXPECT_TRUE(listener().delegate->shouldAcceptNewConnection(*listener().listener, *second));
  EXPECT_EQ(first->protocol, &OrvaneSECommunication::kProtocol);
  EXPECT_EQ(first->exported.get(), OrvaneController::shared());
  EXPECT_EQ(second->exported.get(), OrvaneController::shared());

  first->exported->addHostname(Value::string("a.example"));
  stand_in::take_log();
  first->invalidated();
  second->interrupted();
  EXPECT_EQ(stand_in::take_log(), (Strings{"default: connection invalidated", "default: receive stop command",
                                           "default: connection interrupted", "default: receive stop command"}));
  EXPECT_TRUE(db_has_hostname("a.example"));
}

}  // namespace
}  // namespace orvane
