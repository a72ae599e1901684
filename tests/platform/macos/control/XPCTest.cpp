#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "companion/client/CallTimeout.h"
#include "companion/client/ControlChannel.h"
#include "companion/keeper/Keeper.h"
#include "database/Database.h"
#include "platform/gnustep/Harness.h"
#include "platform/gnustep/xpc/Services.h"
#include "service/XPCServiceDelegate.h"
#include "support/NotedController.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

using stand_in::take_log;
using stand_in::take_trace;

class XPC : public DatabaseTest {
 protected:
  void listen(const Ref<NSXPCListenerDelegate>& delegate, const Value& name = text("S")) {
    listener_ = NSXPCListener::initWithMachServiceName(name);
    listener_->setDelegate(delegate.get());
    listener_->resume();
  }
  static std::unique_ptr<Client> connect() { return connect_client({.service = "S", .socket = ""}); }
  static std::string failure(const std::function<void()>& call) {
    try {
      call();
    } catch (const ClientError& error) {
      return error.what();
    }
    return "";
  }

  Ref<NSXPCListener> listener_;
  Ref<NotedDelegate> service_ = Ref<NotedDelegate>::adopt(new NotedDelegate);
};

TEST_F(XPC, ConnectsEveryClientToTheControlObject) {
  listen(XPCServiceDelegate::init());
  auto first = connect();
  EXPECT_EQ(take_trace(),
            "interface OrvaneSECommunication | object OrvaneController | activate | invalidation handler | "
            "interruption handler");
  const uint64_t before = first->changesCount();
  connect()->addHostname(text("a.example"));
  EXPECT_EQ(first->changesCount(), before + 1);
}

TEST_F(XPC, LogsTheEndOfEachConnection) {
  listen(XPCServiceDelegate::init());
  auto first = connect(), second = connect();
  first->addHostname(text("a.example"));
  take_log();
  first.reset();
  EXPECT_EQ(take_log(), "default* connection invalidated | default? receive stop command");
  stand_in::break_connections();
  EXPECT_EQ(take_log(), "default* connection interrupted | default? receive stop command");
  EXPECT_TRUE(db_has_hostname("a.example"));
}

TEST_F(XPC, ReleasesClosedConnectionsAndListeners) {
  auto use = [this] {
    listen(XPCServiceDelegate::init());
    for (int i = 0; i < 3; ++i) connect()->addHostname(text("a.example"));
    listener_->setDelegate(nullptr);
    EXPECT_THROW(connect(), ClientError) << "no delegate";
    listener_ = nullptr;
    EXPECT_THROW(connect(), ClientError) << "no listener";
    take_log();
    take_trace();
  };
  EXPECT_EQ(leaked_objects(use), "");
}

TEST_F(XPC, LogsAnInvalidServiceName) {
  for (const Value& name : {Value(), Value::number(7)}) {
    listen(XPCServiceDelegate::init(), name);
    EXPECT_EQ(take_log(), "default! the control channel is closed: no name");
  }
}

TEST_F(XPC, CarriesOutEachMessageBeforeItsCallReturns) {
  listen(service_);
  const auto expected = send_every_message(*connect());
  EXPECT_EQ(service_->controller->received(), expected);
}

// If an argument, or an element of a container, has a class that the method does not take, the extension's side drops
// the whole message without an error. So the client must check before it sends.
TEST_F(XPC, RejectsArgumentsThatCannotBeSent) {
  listen(service_);
  auto client = connect();
  const std::pair<const char*, Value> rows[] = {{"a string for a set", text("x")},
                                                {"a set in a set", Value::set({Value::set({})})},
                                                {"nil in a set", Value::set({Value()})}};
  for (const auto& row : rows) {
    EXPECT_EQ(failure([&] { client->setHostnames(row.second); }).find("an argument cannot be sent"), 0u) << row.first;
  }
  EXPECT_TRUE(client->ping()) << "the connection is lost";
}

// When a connection breaks, messages are lost. An answer that comes later, from a restarted extension or over a new
// connection, does not confirm that the earlier messages arrived.
TEST_F(XPC, ReportsAnEndDuringACall) {
  listen(service_);
  // deliver() runs between the message and the question for its confirmation. The receiver breaks the connection.
  auto deliver = [](uint64_t, uint64_t) { stand_in::deliver_messages(); };
  for (bool restarted : {false, true}) {
    for (const Client::Progress& progress : {Client::Progress(), Client::Progress(deliver)}) {
      auto client = connect();
      service_->controller->onMessage = [restarted] { stand_in::break_connections(restarted); };
      EXPECT_NE(failure([&] { client->setHostnames(std::vector<std::string>{"x"}, progress); }), "")
          << "restarted: " << restarted;
      EXPECT_NE(failure([&] { client->ping(); }), "") << "restarted: " << restarted << ", later call";
    }
  }
}

TEST_F(XPC, EndsACallThatIsNotAnswered) {
  listen(service_);
  auto client = connect();
  {
    CallTimeout limit(std::chrono::milliseconds(1));
    limit.watch(client->descriptor());
    stand_in::hang();
    EXPECT_THROW(client->ping(), UnresponsiveExtension);
  }
  stand_in::hang();
  EXPECT_THROW(connect(), UnresponsiveExtension) << "the first call";
}

// Runs the keeper in a child process, on its main thread. `play` runs on another thread, and ends the keeper with a
// signal.
void run_keeper_beside(const KeeperOptions& options, const std::function<void()>& play) {
  std::thread(play).detach();
  run_keeper(options);
  _exit(0);
}

TEST_F(XPC, TheKeeperSendsTheListAfterEachChangeAndEachLossOfTheExtension) {
  const TemporaryFolder folder;
  const auto path = [&](const char* name) { return (folder.path() / name).string(); };
  const KeeperOptions options = {
      {.service = "S", .socket = ""}, path("list"), path("state"), path("guard"), path("lists.d"),
      path("subscriptions")};
  const auto await = [](const char* name, const char* event) {
    for (int i = 0; i < 1000; ++i, usleep(10'000)) {
      if (db_has_hostname(name)) return;
    }
    std::fprintf(stderr, "the extension has no %s after %s\n", name, event);
    _exit(1);
  };
  const auto play = [&] {
    listen(XPCServiceDelegate::init());
    await(".a.example", "the start");
    folder.write("new", "a.example\nb.example\n");
    std::filesystem::rename(path("new"), path("list"));
    await(".b.example", "a change of the list's file");
    const auto lose = [&](const char* event, const std::function<void()>& loss) {
      db_hostname_set(Value::set({}));
      loss();
      await(".b.example", event);
    };
    lose("an interruption", [] { stand_in::break_connections(); });
    lose("an invalid connection", stand_in::invalidate_connections);
    lose("a restart of the extension", [&] {
      listener_ = nullptr;
      stand_in::break_connections();
      usleep(200'000);  // the keeper tries to connect meanwhile
      listen(XPCServiceDelegate::init());
    });
    kill(getpid(), SIGTERM);
  };
  folder.write("list", "a.example\n");
  EXPECT_EXIT(run_keeper_beside(options, play), testing::ExitedWithCode(0), "");
  EXPECT_FALSE(std::filesystem::exists(path("state")));
}

}  // namespace
}  // namespace orvane
