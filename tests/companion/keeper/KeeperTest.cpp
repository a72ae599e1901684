#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <vector>

#include "companion/client/Client.h"
#include "companion/commands/KeeperCommands.h"
#include "companion/commands/Try.h"
#include "companion/keeper/ExtensionLink.h"
#include "companion/keeper/KeeperState.h"
#include "companion/keeper/ListSync.h"
#include "companion/keeper/ReadOnlyLists.h"
#include "companion/list/ListFile.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/watch/Timer.h"
#include "platform/Clock.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

// A stand-in for the extension. FakeClient applies each edit to this struct, and adds the edit to `log`.
struct Extension {
  std::set<std::string> held;
  std::string log;
  uint64_t changes = 0;
  bool isRunning = true;
  size_t mostNames = SIZE_MAX;                               // the limit on the names in one message
  std::vector<ExtensionLink::Clock::time_point> wholeLists;  // when each message with a whole list came
};
Extension extension;

class FakeClient : public Client {
 public:
  bool ping() override { return true; }
  uint64_t changesCount() override { return extension.isRunning ? extension.changes : throw ClientError("gone"); }
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
    extension.wholeLists.push_back(ExtensionLink::Clock::now());
    if (names.size() > extension.mostNames) throw ClientError("too large");
    count(1, "set " + std::to_string(names.size()));
    extension.held = {names.begin(), names.end()};
  }

  bool appFilterState() override { throw std::logic_error("unexpected"); }
  void start() override { throw std::logic_error("unexpected"); }
  void stop() override { throw std::logic_error("unexpected"); }
  void addApplicationIdentifier(const Value&) override { throw std::logic_error("unexpected"); }
  void removeApplicationIdentifier(const Value&) override { throw std::logic_error("unexpected"); }
  void setApplicationIdentifiers(const Value&) override { throw std::logic_error("unexpected"); }
  void addHostname(const Value&) override { throw std::logic_error("unexpected"); }
  void removeHostname(const Value&) override { throw std::logic_error("unexpected"); }
  void setHostnames(const Value&) override { throw std::logic_error("unexpected"); }

 private:
  static void count(uint64_t edits, const std::string& message) {
    if (!extension.isRunning) throw ClientError("gone");
    extension.changes += edits;
    extension.log += (extension.log.empty() ? "" : ", ") + message;
  }
};

Moment at(int seconds) { return kAbsoluteTimeReference + std::chrono::seconds(seconds); }

// So many new names that the keeper sends the whole list, instead of one message for each name.
HeldNames many_names() {
  HeldNames many;
  for (size_t i = 0; i <= kLargestDifference; ++i) many.names.push_back(std::to_string(100000 + i));
  return many;
}

void wait_and_attend(ExtensionLink& link, const HeldNames& list) {
  std::this_thread::sleep_until(link.due());
  link.attend(&list);
}

class Keeper : public testing::Test {
 protected:
  Keeper() { extension = {}; }
  std::string path(const char* name) const { return folder_.path() / name; }
  const TemporaryFolder folder_;
  KeeperState state;
  ExtensionLink link{{}, state};
};

TEST_F(Keeper, SendsOnlyTheDifference) {
  const HeldNames none, held{{"a", "b"}, {}, {}}, suspended{{"b"}, {{"a", at(9)}}, at(9)};
  const HeldNames later{{"b", "c"}, {{"a", at(10)}}, at(10)}, left{{"c"}, {}, {}};
  const std::tuple<const char*, const HeldNames&, const HeldNames&, const char*, uint64_t> kCases[] = {
      {"new names", none, held, "add a, add b", 2},
      {"no change", held, held, "", 0},
      {"suspension: the date while the name is held", held, suspended, "date 9 a, remove a", 2},
      {"longer suspension", suspended, later, "add c", 1},
      {"end of a suspension", suspended, held, "add a", 1},
      {"removed names, one of them suspended", later, left, "remove b", 1},
  };
  FakeClient client;
  for (const auto& [description, before, after, sent, edits] : kCases) {
    extension = {};
    EXPECT_EQ(send_difference(client, before, after), edits) << description;
    EXPECT_EQ(extension.log, sent) << description;
  }
}

TEST_F(Keeper, SendsTheWholeListAfterOneThatWasTooLarge) {
  const HeldNames one{{"a"}, {}, {}}, two{{"a", "b"}, {}, {}}, many = many_names();
  state.listVersion = "1";
  link.attend(&one);
  extension.mostNames = 2;
  ++extension.changes;
  state.listVersion = "2";
  link.update(&one, many);
  EXPECT_TRUE(state.connected);
  EXPECT_EQ(state.changesOfOthers, 1U) << "the extension still has the other client's edit";
  EXPECT_EQ(state.extensionError, "too large");
  EXPECT_EQ(state.sentVersion, "1");
  state.listVersion = "3";
  link.update(&many, two);
  EXPECT_EQ(extension.held, (std::set<std::string>{"a", "b"}));
  EXPECT_EQ(state.sentVersion, "3");
  EXPECT_EQ(state.extensionError, std::nullopt);
}

TEST_F(Keeper, SendsTheWholeListAfterEditsOfOthersOnlyIfTheListHasChanged) {
  const HeldNames one{{"a"}, {}, {}}, two{{"a", "b"}, {}, {}};
  link.attend(&one);
  extension.held = {"z"};
  ++extension.changes;
  link.update(&one, one);
  EXPECT_EQ(extension.held, std::set<std::string>{"z"}) << "otherwise two keepers could overwrite each other's list";
  EXPECT_EQ(state.changesOfOthers, 1U);
  link.update(&one, two);
  EXPECT_EQ(extension.held, (std::set<std::string>{"a", "b"}));
  EXPECT_EQ(state.changesOfOthers, 0U);
}

TEST_F(Keeper, UndoesEditsOfOthersOnlyWhenTold) {
  const HeldNames list{{"a"}, {}, {}};
  link.attend(&list);
  extension.held.clear();
  ++extension.changes;
  EXPECT_EQ(link.due(), ExtensionLink::Clock::time_point::max()) << "an idle keeper sleeps";
  link.attend(&list);
  EXPECT_TRUE(extension.held.empty());
  link.undoEdits(true, PackedNames(list.names));
  extension.log.clear();
  link.attend(&list);
  EXPECT_EQ(extension.held, std::set<std::string>{"a"});
  EXPECT_EQ(extension.log, "add a, set 1") << "the guarded names first";
  EXPECT_LE(link.due(), ExtensionLink::Clock::now()) << "asks again at once";
  EXPECT_EQ(state.changesOfOthers, 0U);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) {
    ++extension.changes;
    wait_and_attend(link, list);
  }
  EXPECT_EQ(extension.log, "add a, set 1, add a, set 1, add a, set 1, add a, set 1");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "logs at most once a minute";
  const HeldNames many = many_names();
  extension.mostNames = 0;
  link.update(&list, many);
  extension.mostNames = SIZE_MAX;
  for (int i = 0; i < 2; ++i) wait_and_attend(link, many);
  EXPECT_EQ(extension.held.size(), many.names.size()) << "sends again what the extension did not take";
}

TEST_F(Keeper, SendsOnlyTheGuardedNamesIfTheWholeListIsTooLarge) {
  const HeldNames many = many_names();
  extension.mostNames = 2;
  link.undoEdits(true, PackedNames(std::vector<std::string>{"a", "b"}));
  link.attend(&many);
  EXPECT_EQ(extension.held, (std::set<std::string>{"a", "b"}));
  EXPECT_EQ(state.extensionError, "too large");
  EXPECT_TRUE(state.hasOnlyGuarded);
  extension.held.clear();
  ++extension.changes;
  wait_and_attend(link, many);
  EXPECT_EQ(extension.held, (std::set<std::string>{"a", "b"})) << "after an edit by another client";
}

TEST_F(Keeper, WaitsLongerAfterEachRefusalOfAListWithoutGuardedNames) {
  const HeldNames many = many_names();
  const auto& attempts = extension.wholeLists;
  extension.mostNames = 2;
  link.undoEdits(true, {});
  link.attend(&many);
  for (int i = 0; i < 10 && attempts.size() < 3; ++i) {
    ++extension.changes;       // another client edits in a loop
    link.update(&many, many);  // the file is read again, but has the same names
    wait_and_attend(link, many);
  }
  ASSERT_EQ(attempts.size(), 3U);
  EXPECT_GE(attempts[1] - attempts[0], 500ms);
  EXPECT_GE(attempts[2] - attempts[1], 1s);
  HeldNames more = many;
  more.names.emplace_back("z");
  extension.mostNames = SIZE_MAX;
  link.update(&many, more);
  EXPECT_EQ(extension.held.size(), more.names.size()) << "a changed list is sent at once";
}

TEST_F(Keeper, GetsAnErrorInsteadOfATimerThatNeverFires) {
  // At the first call of a method of a class, UndefinedBehaviorSanitizer opens a pipe to check the object. So this call
  // comes before the limit.
  EXPECT_STRNE(std::system_error(EMFILE, std::generic_category()).what(), "");
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_THROW(Timer{Timer::Clock::Wall}, std::system_error);
  setrlimit(RLIMIT_NOFILE, &limit);
}

// The names of the lists that are in force, and for each list, whether an error is known.
std::string described(ReadOnlyLists& lists, uint64_t ownRoom) {
  std::string text;
  for (const RankedNames& list : lists.inForce(ownRoom, {{"off", false}})) {
    for (std::string_view name : *list.names) text.append(name).append(" ");
  }
  for (const auto& list : lists.states()) text += list.error ? "!" : "-";
  return text;
}

TEST_F(Keeper, KeepsTheLastGoodCopyOfAReadOnlyListWithinLimits) {
  const uint64_t one = room_of(".a.example");
  ReadOnlyLists lists(path("d"), path("s"), 4 * one, 0ms);
  const auto write = [&](const char* name, const char* text) { folder_.write(name, text); };
  const std::tuple<const char*, std::function<void()>, uint64_t, const char*> kSteps[] = {
      {"no folders", [] {}, 0, ""},
      {"files, but no lists", [&] { write("d/README", "a"), write("d/.x.list", "a"), write("s/A.list", "a"); }, 0, ""},
      {"drop-ins first", [&] { write("s/a.list", "s.example"), write("d/Z.list", "d.example\ne.example"); }, 0,
       ".d.example .e.example .s.example --"},
      {"no room beside the machine's list", [] {}, 2, ".d.example .e.example -!"},
      {"a machine's list that takes all room", [] {}, 9, ".d.example .e.example -!"},
      {"an unreadable file", [&] { unlink(path("d/Z.list").c_str()), write("d/Z.list/x", ""); }, 0,
       ".d.example .e.example .s.example !-"},
      {"without room", [&] { write("s/b.list", "b.example\nc.example"); }, 0, ".d.example .e.example .s.example !-!"},
      {"room again, and an unreadable file in place of another",
       [&] { std::filesystem::remove_all(path("d")), write("d/Y.list/x", ""); }, 0,
       ".s.example .b.example .c.example !--"},
      {"no room beside a suspendable drop-in", [&] { write("d/A.list", "suspendable=yes\nf.example\ng.example"); }, 0,
       ".f.example .g.example .s.example -!-!"},
      {"the room of a suspendable drop-in", [&] { write("d/Z.list", "d.example\ne.example\nh.example"); }, 0,
       ".d.example .e.example .h.example .s.example !!--!"},
      {"groups of the machine's list",
       [&] { write("d/Z.list", "[group off]\nd.example"), write("s/a.list", "[group off]\ns.example"); }, 0,
       ".d.example .f.example .g.example -!--!"},
      {"fewer names", [&] { std::filesystem::remove_all(path("d")), write("s/b.list", "b.example"); }, 0,
       ".b.example --"},
  };
  for (const auto& [description, change, ownNames, outcome] : kSteps) {
    change();
    lists.refresh();
    EXPECT_EQ(described(lists, ownNames * one), outcome) << description;
  }
  for (size_t i = 0; i < ReadOnlyLists::kMostLists; ++i) write(("s/0" + std::to_string(i) + ".list").c_str(), "");
  lists.refresh();
  EXPECT_EQ(described(lists, 0), std::string(ReadOnlyLists::kMostLists, '-')) << "the files after the limit";
}

TEST_F(Keeper, KeepsTheNamesOfAReadOnlyListThatIsBrieflyGone) {
  constexpr auto kDelay = kRereadInterval / 2;
  const std::filesystem::path folder = path("d"), away = path("e"), file = folder / "d.list";
  const auto write = [&](const char* text) { std::ofstream(file) << text; };
  const std::tuple<const char*, std::function<void()>, std::chrono::seconds, const char*> kSteps[] = {
      {"a list", [&] { write("a.example\nb.example"); }, 0s, ".a.example .b.example -"},
      {"half written", [&] { write("a.example"); }, kDelay, ".a.example .b.example -"},
      {"removed", [&] { remove(file); }, kDelay, ".a.example .b.example -"},
      {"a folder in its place", [&] { create_directory(file); }, kRereadInterval, ".a.example .b.example !"},
      {"removed again", [&] { remove(file); }, kDelay, ".a.example .b.example -"},
      {"no readable folder of lists", [&] { rename(folder, away), create_symlink(folder, folder); }, kRereadInterval,
       ".a.example .b.example !"},
      {"back", [&] { remove(folder), rename(away, folder), write("c.example\nd.example"); }, 0s,
       ".c.example .d.example -"},
      {"empty", [&] { write(""); }, kDelay, ".c.example .d.example -"},
  };
  create_directory(folder);
  ReadOnlyLists lists(folder, path("s"), kMessageRoom, kDelay);
  for (const auto& [description, change, expectedDue, outcome] : kSteps) {
    change();
    lists.refresh();
    const auto due = lists.due();
    const auto isLater = due && *due - std::chrono::steady_clock::now() > kDelay;
    EXPECT_EQ(!due ? 0s : isLater ? kRereadInterval : kDelay, expectedDue) << description;
    EXPECT_EQ(described(lists, 0), outcome) << description;
  }
}

// Stands in for a running keeper: has locked the state file, and publish() writes the state to it.
class StateFile : public Keeper {
 protected:
  StateFile() {
    state.listPath = path("list");
    state.listVersion = state.sentVersion.emplace("v");
    state.suspended = {{"a.example", at(3)}};
    state.groups = {{"work", true, at(4), at(5), 6, 7s, at(8), 9}};
    state.pending = {{"work", "b.example", at(9)}};
    state.guardError = "no";
    state.connected = true;
    state.changesOfOthers = 3;
  }
  void publish() { write_keeper_state(path("state"), state); }
  InForce wait(const std::string& version, std::chrono::milliseconds timeout) {
    return wait_until_in_force(path("state"), version, timeout);
  }
  Descriptor lock_ = lock_keeper_state(path("state"));
};

TEST_F(StateFile, TellsWhenAVersionIsInForce) {
  publish();
  EXPECT_EQ(to_json(read_keeper_state(path("state")).value()), to_json(state));
  EXPECT_EQ(wait("v", 0ms), InForce::Yes);
  EXPECT_EQ(wait("w", 20ms), InForce::TimedOut);
  state.restSeconds = 120;  // the keeper rests, so a command waits longer than its timeout
  publish();
  // A version later than "w" ends the wait for "w", too.
  std::ofstream(path("list")) << "a.example\n";
  std::thread keeper([&] {
    std::this_thread::sleep_for(50ms);
    state.listVersion = state.sentVersion.emplace(list_version(path("list")));
    publish();
  });
  EXPECT_EQ(wait("w", 0ms), InForce::Yes);
  keeper.join();
  state.sentVersion.reset();
  state.connected = false;
  publish();
  EXPECT_EQ(wait(state.listVersion, 2min), InForce::NoExtension);
  lock_ = Descriptor();
  EXPECT_EQ(wait(state.listVersion, 2min), InForce::NoKeeper);
}

TEST_F(StateFile, IsRejectedWhenInvalid) {
  for (const char* text : {"", "[]", "{}", R"({"list": {"suspended": 1}, "extension": {}})",
                           R"({"list": {"suspended": []}, "extension": 1})",
                           R"({"list": {"suspended": [], "names": "x"}, "extension": {}})"}) {
    std::ofstream(path("state")) << text;
    EXPECT_THROW(read_keeper_state(path("state")), FileError) << text;
  }
}

TEST_F(Keeper, TryGivesVerdictWithReason) {
  std::ofstream(path("list"))
      << "a.example\nx.a.example allowed\nb.example only\nwww.c.example only\nc.example until=2999-01-01T00:00:00Z\n"
      << "www.b.example allowed\n[group work]\nenabled = no\nw.example\n";
  state.connected = true;
  state.sentVersion = list_version(path("list"));
  Descriptor lock = lock_keeper_state(path("state"));
  CommonOptions options;
  options.listPath = path("list");
  options.keeperStatePath = path("state");
  auto check = [&](const char* host, const std::string& verdict, const char* reason) {
    write_keeper_state(path("state"), state);
    testing::internal::CaptureStdout();
    int code = try_hosts(options, host, {});
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(code, verdict == "blocked" ? 0 : verdict == "unknown" ? kUnknown : kNotInForce) << output;
    EXPECT_NE(output.find(": " + verdict + "\n"), std::string::npos) << output;
    EXPECT_NE(output.find(reason), std::string::npos) << output;
  };
  check("A.example.", "blocked", "blocked on ports 80 and 443 by the line \"a.example\"\n");
  check("y.m.a.example", "blocked", "by the line \"a.example\"\n");
  check("y.x.a.example", "not blocked", "allowed by the exception \"x.a.example allowed\"");
  check("m.b.example", "not blocked", "\"b.example only\" covers only this exact name: block it without --exact");
  check("www.b.example", "not blocked", "allowed by the exception \"www.b.example allowed\"; no line blocks it now\n");
  check("www.c.example", "blocked", "by the line \"www.c.example only\"\n");
  check("m.c.example", "not blocked", "suspended until Tue 2999");
  check("d.example", "not blocked", "it is not on the list\n");
  check("w.example", "not blocked", "covered by the line \"w.example\" in the group work, which is disabled");
  // With read-only lists.
  std::ofstream(path("d.list")) << "d.example\nx.a.example only\n[group work]\nw.example\n";
  std::ofstream(path("s.list")) << "s.example\na.example allowed\nnew.c.example\nx.a.example\n"
                                << "[group work]\nv.example\n";
  state.listPath = path("list");
  state.groups = {{"default", true, {}, {}, 0}, {"work", false, {}, {}, 0}};
  state.readOnlyLists = {{path("d.list"), true, false, true, 3, 0, {}, "", {}},
                         {path("s.list"), false, false, true, 4, 0, {}, "", {}}};
  check("sub.d.example", "blocked", "by the line \"d.example\" of the administrator's list \"");
  check("x.a.example", "blocked", "by the line \"x.a.example only\" of the administrator's list \"");
  check("y.x.a.example", "blocked", "by the line \"a.example\"; the exception \"x.a.example allowed\" has no effect");
  check("b.a.example", "blocked", "by the line \"a.example\"\n");
  check("s.example", "blocked", "by the line \"s.example\" of the fetched list \"");
  check("new.c.example", "not blocked", "but suspended with the line \"c.example until=2999-01-01T00:00:00Z\"");
  check("v.example", "not blocked", "covered by a line in the group work, which is disabled: the line \"v.exa");
  check("w.example", "blocked", "by the line \"w.example\" of the administrator's list \"");
  std::filesystem::create_directory(path("sites"));
  std::ofstream(path("sites/a.site")) << "name: A\ncategory: x\na.example\nb.example\nn.c.example\n";
  options.cataloguePath = path("sites");
  options.json = true;
  testing::internal::CaptureStdout();
  EXPECT_EQ(try_hosts(options, "", {{"A"}, {}}), kNotInForce);
  std::string verdicts;
  for (const auto& each : nlohmann::json::parse(testing::internal::GetCapturedStdout()))
    verdicts.append(each["host"]).append(" ").append(each["verdict"]).append(", ");
  EXPECT_EQ(verdicts, "a.example blocked, b.example blocked, n.c.example not blocked, ");
  options.json = false;
  check("www.e.example", "not blocked", "it is not on the list\n");
  state.groups.front().nextChange = read_moment("2999-01-01T00:00:00Z");
  check("b.a.example", "blocked", "by the line \"a.example\"; the group is in force until Tue 2999");
  state.sentVersion = "another";
  check("a.example", "unknown", "has not sent this list yet");
  state.connected = false;
  extension.isRunning = false;
  check("a.example", "not blocked", "nothing is blocked");
  lock = Descriptor();
  check("a.example", "unknown", "no keeper runs");
}

}  // namespace

std::unique_ptr<Client> connect_client(const ClientOptions&) { return std::make_unique<FakeClient>(); }

}  // namespace orvane
