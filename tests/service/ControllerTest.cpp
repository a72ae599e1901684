#include <string>
#include <thread>
#include <vector>

#include "database/Database.h"
#include "service/OrvaneController.h"

namespace orvane {
namespace {

struct ReachableController : OrvaneController {
  using OrvaneController::mChangesCount;
  using OrvaneController::mChangesCountLock;
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

TEST_F(ControllerTest, RepliesOnce) {
  std::string replies;
  controller->pingWithReply([&](bool alive) { replies += alive ? "alive " : "not alive "; });
  controller->getAppFilterStateWithReply([&](bool active) { replies += active ? "active " : "not active "; });
  controller->getChangesCount([&](uint64_t changes) { replies += std::to_string(changes); });
  EXPECT_EQ(replies, "alive not active 0");
  EXPECT_FALSE(controller->mChangesCountLock);
}

TEST_F(ControllerTest, RepliesToCountQueriesOutsideItsMonitor) {
  // Another thread makes an edit during the reply. If the monitor were still held then, this would be a deadlock.
  controller->getChangesCount([&](uint64_t) { std::jthread([&] { controller->addHostname(text("a.example")); }); });
  EXPECT_EQ(count(), 1U);
}

TEST_F(ControllerTest, CountsEveryEdit) {
  controller->addHostname(text("a.example"));
  controller->addHostname(text("a.example"));
  controller->addHostname(nullptr);  // the controller passes even nil to the database
  EXPECT_EQ(count(), 3U);
  controller->setProperties(until(9e9), text("a.example"));
  EXPECT_FALSE(db_hostname_is_blockable("a.example"));
  controller->setProperties(nullptr, text("unknown.example"));
  controller->removeHostname(text("unknown.example"));
  controller->setHostnames(nullptr);
  EXPECT_TRUE(db_hostnames->empty());
  controller->setHostnames(Value::set({text("b.example"), text("c.example")}));
  controller->removeHostname(text("c.example"));
  EXPECT_EQ(count(), 9U);
  const std::string messages = " | " + stand_in::take_log("Database");
  // "@" shows that the thread held the monitor when it logged the message.
  for (const char* edit : {"add: (null) |", "removed: c.example |", "set: {", "set_properties(a.example,{"}) {
    EXPECT_NE(messages.find(std::string(" | @db_hostname_") + edit), std::string::npos) << edit;
  }
}

TEST_F(ControllerTest, CountsOnlyEdits) {
  controller->addApplicationIdentifier(text("x"));
  controller->removeApplicationIdentifier(nullptr);
  controller->setApplicationIdentifiers(Value::array({text("x")}));
  EXPECT_EQ(stand_in::take_log(), "");
  controller->start();
  controller->stop();
  EXPECT_EQ(stand_in::take_log(), "default? receive start command | default? receive stop command");
  EXPECT_EQ(count(), 0U);
  EXPECT_TRUE(db_hostnames->empty());
  EXPECT_FALSE(db_is_browser("x"));
}

TEST_F(ControllerTest, WrapsTheCountToOne) {
  controller->mChangesCount = UINT64_MAX - 1;
  controller->addHostname(text("a.example"));
  EXPECT_EQ(count(), UINT64_MAX);
  controller->addHostname(text("a.example"));
  EXPECT_EQ(count(), 1U);
}

TEST_F(ControllerTest, CountsConcurrentEdits) {
  stand_in::log.disabled = {LogLevel::Debug};
  const int objects = stand_in::aliveObjects;
  OrvaneController* seen[4] = {};
  std::vector<std::jthread> clients;
  for (auto& place : seen) {
    clients.emplace_back([&] {
      place = OrvaneController::shared();
      for (int i = 0; i < 1000; ++i) {
        controller->addHostname(text("a.example"));
        controller->removeHostname(text("a.example"));
        controller->setHostnames(nullptr);
        controller->setProperties(nullptr, text("a.example"));
        db_has_hostname("a.example");  // without the monitor, as a provider does
        EXPECT_LE(count(), 16000U);
      }
    });
  }
  clients.clear();
  for (auto* instance : seen) EXPECT_EQ(instance, seen[0]);
  EXPECT_LE(stand_in::aliveObjects, objects + 1);
  EXPECT_EQ(count(), 16000U);
}

}  // namespace
}  // namespace orvane
