#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "companion/client/Client.h"
#include "companion/commands/KeeperCommands.h"
#include "companion/commands/Try.h"
#include "companion/keeper/ExtensionLink.h"
#include "companion/keeper/KeeperState.h"
#include "companion/keeper/ListSync.h"
#include "companion/list/ListFile.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"

namespace orvane {
namespace {

// An extension that writes down what it is asked.
struct Extension {
  std::set<std::string> held;
  std::string log;
  uint64_t changes = 0;
  bool isThere = true;
  size_t mostNames = SIZE_MAX;  // in one message
};
Extension extension;

class FakeClient : public Client {
 public:
  bool ping() override { return true; }
  uint64_t changesCount() override { return extension.isThere ? extension.changes : throw ClientError("gone"); }
  void setProperties(const Value& properties, const Value& forHostname) override {
    count(1, "date " + std::to_string(static_cast<int64_t>(properties.find("DontBlockUntil")->asDate())) + " " +
                 std::string(forHostname.asString()));
  }
  void addHostnames(std::span<const std::string> names) override {
    for (const auto& name : names) count(1, "add " + name), extension.held.insert(name);
  }
  void removeHostnames(std::span<const std::string> names) override {
    for (const auto& name : names) count(1, "remove " + name), extension.held.erase(name);
  }
  void setHostnames(std::span<const std::string> names, const Progress&) override {
    if (names.size() > extension.mostNames) throw ClientError("too large");
    count(1, "set " + std::to_string(names.size()));
    extension.held = {names.begin(), names.end()};
  }

  bool appFilterState() override { throw std::logic_error("unasked"); }
  void start() override { throw std::logic_error("unasked"); }
  void stop() override { throw std::logic_error("unasked"); }
  void addApplicationIdentifier(const Value&) override { throw std::logic_error("unasked"); }
  void removeApplicationIdentifier(const Value&) override { throw std::logic_error("unasked"); }
  void setApplicationIdentifiers(const Value&) override { throw std::logic_error("unasked"); }
  void addHostname(const Value&) override { throw std::logic_error("unasked"); }
  void removeHostname(const Value&) override { throw std::logic_error("unasked"); }
  void setHostnames(const Value&) override { throw std::logic_error("unasked"); }

 private:
  static void count(uint64_t edits, const std::string& message) {
    if (!extension.isThere) throw ClientError("gone");
    extension.changes += edits;
    extension.log += (extension.log.empty() ? "" : ", ") + message;
  }
};

constexpr Moment kReference = std::chrono::sys_days(std::chrono::year(2001) / 1 / 1);
Moment at(int seconds) { return kReference + std::chrono::seconds(seconds); }

class Keeper : public testing::Test {
 protected:
  Keeper() { extension = {}; }
  ~Keeper() override { std::filesystem::remove_all(folder_); }
  std::string path(const char* name) const { return folder_ + "/" + name; }

 private:
  static std::string makeFolder() {
    char path[] = "/tmp/orvane-keeper-XXXXXX";
    return mkdtemp(path) == nullptr ? "" : path;
  }
  const std::string folder_ = makeFolder();
};

TEST_F(Keeper, SendsADateBeforeItTakesANameOutAndTellsNothingThatIsKnown) {
  const HeldNames none, held{{"a", "b"}, {}, {}}, suspended{{"b"}, {{"a", at(9)}}, at(9)};
  const HeldNames later{{"b", "c"}, {{"a", at(10)}}, at(10)}, left{{"c"}, {}, {}};
  const struct {
    const HeldNames &before, &after;
    const char* sent;
    uint64_t edits;
  } kCases[] = {
      {none, held, "add a, add b", 2},
      {held, held, "", 0},
      {held, suspended, "date 9 a, remove a", 2},
      {suspended, later, "date 10 a, add c", 2},
      {suspended, held, "add a", 1},
      {later, left, "remove b", 1},
  };
  FakeClient client;
  for (const auto& c : kCases) {
    extension = {};
    EXPECT_EQ(send_difference(client, c.before, c.after), c.edits);
    EXPECT_EQ(extension.log, c.sent);
  }
  HeldNames many;
  for (size_t i = 0; i <= kLargestDifference; ++i) many.names.push_back(std::to_string(100000 + i));
  extension = {};
  EXPECT_TRUE(needs_whole_list(none, many) && needs_whole_list(many, none));
  many.names.pop_back();
  EXPECT_FALSE(needs_whole_list(none, many));
}

TEST_F(Keeper, EndsTheSuspensionsThatHavePassedAndNoOthers) {
  HeldNames list{{"b", "d"}, {{"a", at(5)}, {"c", at(5)}, {"e", at(6)}, {"f", at(9)}}, at(5)};
  end_suspensions(list, at(4));
  EXPECT_EQ(list.suspended.size(), 4U);
  end_suspensions(list, at(5));
  EXPECT_EQ(list.names, (std::vector<std::string>{"a", "b", "c", "d"}));
  EXPECT_EQ(list.nextChange, at(6));
  end_suspensions(list, at(100));
  EXPECT_EQ(list.names.size(), 6U);
  EXPECT_EQ(list.nextChange, std::nullopt);
}

TEST_F(Keeper, SendsEverythingToANewExtensionAndAfterWhatFailed) {
  KeeperState state;
  ExtensionLink link({}, state);
  const HeldNames one{{"a"}, {}, {}}, two{{"a", "b"}, {}, {}};
  state.listVersion = "1";
  extension.changes = 7;
  link.attend(&one);
  EXPECT_TRUE(state.connected);
  extension.held.insert("of others");
  ++extension.changes;
  link.update(&one, two);
  EXPECT_EQ(extension.log, "set 1, add b");
  EXPECT_EQ(state.changesOfOthers, 1U);
  EXPECT_EQ(state.sentNames, 2U);

  // Too much for one message: the connection stands, and what there is to send next is everything.
  extension.mostNames = 2;
  state.listVersion = "2";
  HeldNames many;
  for (size_t i = 0; i <= kLargestDifference; ++i) many.names.push_back(std::to_string(100000 + i));
  link.update(&two, many);
  EXPECT_TRUE(state.connected);
  EXPECT_EQ(state.extensionError, "too large");
  EXPECT_EQ(state.sentVersion, "1");
  state.listVersion = "3";
  link.update(&many, two);
  EXPECT_EQ(extension.held, (std::set<std::string>{"a", "b"}));
  EXPECT_EQ(state.sentVersion, "3");
  EXPECT_EQ(state.extensionError, std::nullopt);

  // It ends in the middle of a change, and another one comes.
  extension.isThere = false;
  link.update(&two, one);
  EXPECT_FALSE(state.connected);
  EXPECT_EQ(state.sentVersion, std::nullopt);
  EXPECT_EQ(state.extensionError, "gone");
  extension = {};
  link.attend(&one);
  EXPECT_EQ(extension.log, "set 1");
  EXPECT_EQ(state.changesOfOthers, 0U);
}

TEST_F(Keeper, TellsItsStateToWhoeverAsksAndOnlyWhileItLives) {
  KeeperState state;
  state.listPath = path("list");
  state.listVersion = state.sentVersion.emplace("v");
  state.suspended = {{"a.example", at(3)}};
  state.connected = true;
  state.changesOfOthers = 3;
  EXPECT_FALSE(read_keeper_state(path("state")));
  std::optional<Descriptor> lock = lock_keeper_state(path("state"));
  EXPECT_FALSE(lock_keeper_state(path("state"))) << "two keepers";
  write_keeper_state(path("state"), state);
  EXPECT_EQ(to_json(read_keeper_state(path("state")).value()), to_json(state));

  using namespace std::chrono_literals;
  EXPECT_EQ(wait_until_in_force(path("state"), "v", 0ms), InForce::Yes);
  EXPECT_EQ(wait_until_in_force(path("state"), "w", 20ms), InForce::TimedOut);
  // A later version than the one that is waited for does as well.
  std::ofstream(path("list")) << "a.example\n";
  std::thread keeper([&] {
    std::this_thread::sleep_for(50ms);
    state.listVersion = state.sentVersion.emplace(list_version(path("list")));
    write_keeper_state(path("state"), state);
  });
  EXPECT_EQ(wait_until_in_force(path("state"), "w", 10s), InForce::Yes);
  keeper.join();
  state.sentVersion.reset();
  state.connected = false;
  write_keeper_state(path("state"), state);
  EXPECT_EQ(wait_until_in_force(path("state"), state.listVersion, 10s), InForce::NoExtension);

  for (const char* text : {"", "[]", "{}", R"({"list": {"suspended": 1}, "extension": {}})",
                           R"({"list": {"suspended": []}, "extension": 1})",
                           R"({"list": {"suspended": [], "names": "x"}, "extension": {}})"}) {
    std::ofstream(path("state")) << text;
    EXPECT_THROW(read_keeper_state(path("state")), FileError) << text;
  }
  lock.reset();
  EXPECT_EQ(wait_until_in_force(path("state"), "v", 10s), InForce::NoKeeper) << "of a keeper that has ended";
}

TEST_F(Keeper, TryTellsWhatBefallsAHostAndWhy) {
  std::ofstream(path("list"))
      << "a.example\nb.example only\nwww.c.example only\nc.example until=2999-01-01T00:00:00Z\n";
  KeeperState state;
  state.connected = true;
  state.sentVersion = list_version(path("list"));
  Descriptor lock = lock_keeper_state(path("state"));
  CommonOptions options;
  options.listPath = path("list");
  options.keeperStatePath = path("state");
  auto check = [&](const char* host, const std::string& verdict, const char* reason) {
    write_keeper_state(path("state"), state);
    testing::internal::CaptureStdout();
    int code = try_host(options, host);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(code, verdict == "blocked" ? 0 : verdict == "unknown" ? kUnknown : kNotInForce) << output;
    EXPECT_NE(output.find(": " + verdict + "\n"), std::string::npos) << output;
    EXPECT_NE(output.find(reason), std::string::npos) << output;
  };
  check("A.example.", "blocked", "it is on the list\n");
  check("m.a.example", "blocked", "as a usual name of a.example");
  check("x.y.a.example", "not blocked", "a.example is on the list, but does not cover x.y.a.example");
  check("www.b.example", "not blocked", "b.example is on the list under its exact name only");
  check("www.c.example", "blocked", "it is on the list\n");
  check("m.c.example", "not blocked", "suspended until 2999");
  check("d.example", "not blocked", "it is not on the list\n");
  state.sentVersion = "another";
  check("a.example", "unknown", "has not sent this list yet");
  state.connected = false;
  extension.isThere = false;
  check("a.example", "not blocked", "nothing is blocked");
  lock = Descriptor();
  check("a.example", "unknown", "no keeper runs");
}

}  // namespace

std::unique_ptr<Client> connect_client(const ClientOptions&) { return std::make_unique<FakeClient>(); }

}  // namespace orvane
