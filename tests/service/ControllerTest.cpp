#include <thread>

#include "database/Database.h"
#include "service/OrvaneController.h"

namespace orvane {
namespace {

class ReachableController : public OrvaneController {
 public:
  using OrvaneController::mChangesCount;
  using OrvaneController::mChangesCountLock;
  ReachableController() = default;
};

class ControllerTest : public DatabaseTest {
 protected:
  Ref<ReachableController> controller = Ref<ReachableController>::adopt(new ReachableController);

  uint64_t count() {
    uint64_t seen = 0;
    controller->getChangesCount([&](uint64_t changes) { seen = changes; });
    return seen;
  }
};

TEST_F(ControllerTest, AnswersOnceEach) {
  std::vector<std::string> replies;
  controller->pingWithReply([&](bool alive) { replies.push_back(alive ? "alive" : "not alive"); });
  controller->getAppFilterStateWithReply([&](bool active) { replies.push_back(active ? "active" : "not active"); });
  controller->getChangesCount([&](uint64_t changes) { replies.push_back(std::to_string(changes)); });
  EXPECT_EQ(replies, (std::vector<std::string>{"alive", "not active", "0"}));
  EXPECT_FALSE(controller->mChangesCountLock);
}

TEST_F(ControllerTest, EveryEditCountsWhateverItChanged) {
  controller->addHostname(text("a.example"));
  controller->addHostname(text("a.example"));
  controller->addHostname(nullptr);
  EXPECT_EQ(count(), 3U);
  controller->setProperties(until(9e9), text("a.example"));
  EXPECT_FALSE(db_hostname_is_blockable("a.example"));
  controller->setProperties(nullptr, text("unknown.example"));
  controller->removeHostname(text("unknown.example"));
  controller->setHostnames(names({"b.example"}));
  controller->setHostnames(nullptr);
  EXPECT_EQ(count(), 8U);
  EXPECT_TRUE(db_hostnames->empty());
  // Nil reaches the database as it is.
  auto messages = stand_in::take_log();
  EXPECT_NE(std::find(messages.begin(), messages.end(), "Database: db_hostname_add: (null)"), messages.end());
}

TEST_F(ControllerTest, TheOtherMessagesChangeNothing) {
  controller->addHostname(text("a.example"));
  stand_in::take_log();
  controller->addApplicationIdentifier(text("x"));
  controller->removeApplicationIdentifier(nullptr);
  controller->setApplicationIdentifiers(Value::array({text("x")}));
  EXPECT_EQ(stand_in::take_log(), std::vector<std::string>{});
  controller->start();
  controller->stop();
  EXPECT_EQ(stand_in::take_log(),
            (std::vector<std::string>{"default: receive start command", "default: receive stop command"}));
  EXPECT_EQ(count(), 1U);
  EXPECT_EQ(db_hostnames->size(), 1U);
  EXPECT_FALSE(db_is_browser("x"));
}

TEST_F(ControllerTest, TheCountSkipsZeroWhenItWraps) {
  controller->mChangesCount = UINT64_MAX - 1;
  controller->addHostname(text("a.example"));
  EXPECT_EQ(count(), UINT64_MAX);
  controller->addHostname(text("a.example"));
  EXPECT_EQ(count(), 1U);
}

TEST_F(ControllerTest, AnEditThatEndsByAnExceptionGivesTheLockBackUncounted) {
  struct Full {};
  stand_in::log().hook = [](const stand_in::LogEntry&) { throw Full(); };
  EXPECT_THROW(controller->addHostname(text("a.example")), Full);
  EXPECT_THROW(controller->setProperties(nullptr, text("b.example")), Full);
  stand_in::log().hook = nullptr;
  std::thread([&] { EXPECT_EQ(count(), 0U); }).join();
}

TEST_F(ControllerTest, RepliesOutsideTheLock) {
  controller->getChangesCount([&](uint64_t) {
    // Would wait for ever if the count's reader still held the lock.
    std::thread([&] { controller->addHostname(text("a.example")); }).join();
  });
  EXPECT_EQ(count(), 1U);
}

TEST_F(ControllerTest, ConcurrentEditsAreAllCounted) {
  stand_in::log().enabled[LogLevel::Debug] = false;
  std::vector<std::thread> clients;
  for (int client = 0; client < 4; ++client) {
    clients.emplace_back([&, client] {
      for (int i = 0; i < 500; ++i) {
        controller->addHostname(text(std::to_string(client * 1000 + i)));
        controller->removeHostname(text(std::to_string(i)));
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(count(), 4000U);
  for (const std::string& line : stand_in::take_trace()) EXPECT_EQ(line.find("WRONG ORDER"), std::string::npos);
}

TEST_F(ControllerTest, ConcurrentFirstCallsShareOneInstance) {
  const int objects = stand_in::alive_objects();
  OrvaneController* seen[4] = {};
  std::vector<std::thread> threads;
  for (auto& place : seen) threads.emplace_back([&place] { place = OrvaneController::shared(); });
  for (std::thread& thread : threads) thread.join();
  for (auto* instance : seen) EXPECT_EQ(instance, seen[0]);
  EXPECT_LE(stand_in::alive_objects(), objects + 1);
}

}  // namespace
}  // namespace orvane
