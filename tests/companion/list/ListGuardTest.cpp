#include <gtest/gtest.h>

#include <numeric>
#include <tuple>

#include "companion/list/ListGuard.h"
#include "support/TimeZone.h"

namespace orvane {
namespace {

using std::chrono::seconds;

// A keeper with a guard, and the clocks of its machine. The wall clock starts on a Monday at 12:00 UTC.
class Machine {
 public:
  // The names that are in force after the keeper has read a list with the text `file`.
  std::string read(const std::string& file) {
    const BlockList parsed = BlockList::parse(file);
    guard.update(parsed, now());
    const BlockList list = guard.isActive() ? guard.listInForce(parsed) : parsed;
    const HeldNames held = held_names(list, now().wall, guard.statesOf(list, now()));
    return std::accumulate(held.names.begin(), held.names.end(), std::string(),
                           [](auto all, const auto& name) { return all.empty() ? name : all + " " + name; });
  }
  void restartKeeper() {
    const std::string saved = guard.save(now());
    guard = {};
    guard.load(saved, now());
  }
  void restartMachine(int off, int since = 5) {
    const std::string saved = guard.save(now());
    guard = {};
    clock += running + off;
    running = since;
    ++start;
    guard.load(saved, now());
  }
  ListGuard::Now now() const {
    return {read_moment("2026-06-01T12:00:00Z") + seconds(clock + running), seconds(running),
            isStartKnown ? std::to_string(start) : ""};
  }

  const TimeZone zone{"UTC"};
  ListGuard guard;
  int running = 1000, clock = -1000, start = 0;
  bool isStartKnown = true;
};

constexpr const char* kLock = "lock-until = 2026-06-01T13:00:00Z\n";  // after 3600 s

TEST(ListGuard, KeepsALockedGroupAgainstEveryChangeOfTheFile) {
  const std::string group = std::string("[group work]\n") + kLock;
  const std::string file =
      group + "schedule = Mon 09:00-17:00\na.example\nx.a.example allowed\nb.example\n[group more]\nm.example\n";
  const std::string held = "!.x.a.example .a.example .b.example .m.example";
  const std::tuple<const char*, std::string, std::string> kCases[] = {
      {"nothing", file, held},
      {"all removed", "", ".a.example .b.example"},
      {"the group removed", "[group more]\nm.example\n", ".a.example .b.example .m.example"},
      {"the group renamed", "[group play]\nenabled = no\na.example\n", ".a.example .b.example"},
      {"suspended", group + "a.example until=2026-06-02T00:00:00Z\nb.example until=2026-06-02T00:00:00Z\n",
       ".a.example .b.example"},
      {"narrowed", group + "a.example only\nb.example allowed\n", ".a.example .b.example"},
      {"disabled", group + "enabled = no\n", ".a.example .b.example"},
      {"rescheduled", group + "schedule = Tue 09:00-17:00\n", ".a.example .b.example"},
      {"exceptions", group + "[group new]\nb.example allowed\ny.a.example allowed\nexample allowed\n",
       ".a.example .b.example"},
      {"an exception for another site", "[group new]\nm.example allowed\n", "!.m.example .a.example .b.example"},
      {"a suspended addition", group + "c.example until=2026-06-02T00:00:00Z\n", ".a.example .b.example .c.example"},
      {"additions", file + "n.example\n[group work]\nc.example\n",
       ".a.example .b.example .c.example .m.example .n.example"},
      {"additions removed again, and an exception that was removed is back", file,
       ".a.example .b.example .c.example .m.example"},
      {"unlocked", "[group work]\n", ".a.example .b.example .c.example"},
      {"locked for less time", "[group work]\nlock-until = 2026-06-01T12:00:30Z\n", ".a.example .b.example .c.example"},
  };
  Machine machine;
  for (const auto& [change, text, expected] : kCases) {
    machine.running += 5;
    EXPECT_EQ(machine.read(text), expected) << change;
  }
  machine.running = 1000 + 3600 - 1;
  EXPECT_EQ(machine.read(""), ".a.example .b.example .c.example");
  machine.running += 1;
  EXPECT_EQ(machine.read(""), "") << "the lock has ended";
  EXPECT_FALSE(machine.guard.isActive());
}

TEST(ListGuard, EndsALockAfterTimeThatTheMachineHasRun) {
  const std::string emptied = "schedule = Mon 09:00-17:00\ndelay = 1m\n";
  const std::string open = emptied + "a.example until=2026-06-01T12:30:00Z\n", file = open + kLock;
  Machine machine;
  EXPECT_EQ(machine.read(open), "");
  EXPECT_EQ(machine.read(file), ".a.example") << "a lock ends suspensions";
  for (int clock : {86400, -86400, 6 * 3600}) {
    machine.clock = -1000 + clock;
    EXPECT_EQ(machine.read(emptied), ".a.example") << "with the clock set by " << clock;
    machine.restartKeeper();
    EXPECT_EQ(machine.read(emptied), ".a.example") << "after a restart of the keeper with the clock set by " << clock;
  }
  EXPECT_EQ(machine.guard.due(), seconds(4600));
  machine.isStartKnown = false;
  const std::string saved = machine.guard.save(machine.now());
  machine.isStartKnown = true;
  machine.guard.load(saved, machine.now());
  machine.read(emptied);
  EXPECT_EQ(machine.guard.due(), seconds(4600)) << "the keeper that saved could not read the machine's start";
  machine.clock = -1000;
  machine.running += 600;
  machine.restartMachine(7200);
  EXPECT_EQ(machine.read(emptied), ".a.example");
  EXPECT_EQ(machine.guard.due(), seconds(3000)) << "the time for which the machine was off does not count";
  machine.running += 3000;
  machine.read(file);
  EXPECT_EQ(machine.guard.lockEnd("default"), std::nullopt);
  machine.clock -= 86400;
  machine.read(file);
  EXPECT_EQ(machine.guard.lockEnd("default"), std::nullopt)
      << "the same request locks again after the clock was set back";
  EXPECT_THROW(machine.guard.load("# {}", machine.now()), std::exception);
}

TEST(ListGuard, OpensALockedSiteByScheduleOnlyOnBothClocks) {
  const std::string open = "[group work]\na.example\n[group pause]\nschedule = Mon 12:30-12:40\na.example allowed\n";
  const std::string locked = open + "[group work]\n" + kLock;
  const std::tuple<const char*, int, int, std::string> kCases[] = {
      {"before the span", 1010, 0, ".a.example"},
      {"with the clock set into the span", 1020, 1800, ".a.example"},
      {"in the span", 2860, 0, "!.a.example .a.example"},
      {"with the clock set out of the span", 2870, 3600, ".a.example"},
  };
  Machine machine;
  machine.read(open);
  for (const auto& [what, running, clockSet, held] : kCases) {
    machine.running = running;
    machine.clock = clockSet - 1000;
    EXPECT_EQ(machine.read(locked), held) << what;
    machine.restartKeeper();
  }
  machine.clock = -1000;
  machine.running = 1000 + 1799;
  machine.read(locked);
  EXPECT_EQ(machine.guard.due(), seconds(2800)) << "when the span begins";
  machine.restartMachine(600, 4000);
  machine.clock = -4000 + 1800 + 300;
  EXPECT_EQ(machine.read(locked), "!.a.example .a.example") << "the schedule after a restart follows the new clock";
}

TEST(ListGuard, GuardsNoMoreThanItCanSave) {
  std::string file;
  for (size_t i = 0; i <= ListGuard::kMostGroups; ++i)
    file += "[group g" + std::to_string(i) + "]\ndelay = 1h\na" + std::to_string(i) + ".example\n";
  Machine machine;
  machine.read(file);
  EXPECT_EQ(machine.guard.refusedGroups(), std::vector<std::string>{"g100"});
  const std::string held = machine.read("");
  EXPECT_NE(held.find(".a99.example"), std::string::npos);
  EXPECT_EQ(held.find(".a100.example"), std::string::npos);
  machine.guard = ListGuard(ListGuard::kMostBytes, 1);  // room for one exception
  const std::string many =
      "[group work]\ndelay = 1h\na.example\nb.example\n[group free]\n"
      "x.a.example allowed\nx.b.example allowed\ny.example allowed\n";
  for (const char* when : {"at first", "later"}) {
    EXPECT_EQ(machine.read(many), "!.x.a.example !.y.example .a.example .b.example") << when;
    EXPECT_EQ(machine.guard.due(), std::nullopt) << when;
  }
  machine.guard = ListGuard(100);  // 100 bytes: room for two sites
  EXPECT_EQ(machine.read(std::string("[group work]\na.example\nb.example\nc.example\n") + kLock),
            ".a.example .b.example .c.example")
      << "all are in force";
  EXPECT_EQ(machine.guard.unguardedSites("work"), 1U);
  EXPECT_EQ(machine.read("[group work]\nd.example\n"), ".a.example .b.example .d.example");
  EXPECT_EQ(machine.read(""), ".a.example .b.example");
  EXPECT_EQ(machine.guard.unguardedSites("work"), 0U);
}

TEST(ListGuard, DelaysWhatBlocksLess) {
  const std::string group = "[group work]\ndelay = 10m\n", file = group + "a.example\nb.example\n";
  // The second column has the seconds since the first step.
  const std::tuple<const char*, int, std::string, std::string> kCases[] = {
      {"at first", 0, file, ".a.example .b.example"},
      {"removed", 100, group + "b.example\n", ".a.example .b.example"},
      {"another removed", 300, group, ".a.example .b.example"},
      {"put back", 400, group + "b.example\n", ".a.example .b.example"},
      {"after the delay of the first", 700, group, ".b.example"},
      {"without a delay", 800, "[group work]\n", ".b.example"},
      {"suspended instead", 1299, "[group work]\nb.example until=2026-06-02T00:00:00Z\n", ".b.example"},
      {"after the delay of the second", 1300, "[group work]\nb.example until=2026-06-02T00:00:00Z\n", ""},
      {"blocked again", 1350, "[group work]\nb.example\n", ".b.example"},
      {"with the old delay for the last time", 1399, "[group work]\n", ".b.example"},
      {"removed at once", 1400, "[group work]\n", ""},
  };
  Machine machine;
  for (const auto& [what, at, text, held] : kCases) {
    machine.running = 1000 + at;
    EXPECT_EQ(machine.read(text), held) << what;
    machine.restartKeeper();
  }
}

TEST(ListGuard, BeginsADelayAnewForAChangeThatBlocksLessThanThePendingOne) {
  const std::string group = "[group work]\ndelay = 15m\n", file = group + "a.example\n";
  const std::string lock = group + "lock-until = 2026-06-01T12:10:00Z\n";
  // After the name: the file from the second 10 on, the file from the second 905 on, the second at which the latter
  // begins to have an effect, and the names that are in force then.
  const std::tuple<const char*, std::string, std::string, int, std::string> kCases[] = {
      {"a suspension that had ended already", group + "a.example until=2000-01-01T00:00:00Z\n", group, 1805, ""},
      {"a site without its subdomains", group + "a.example only\n", group, 1805, ""},
      {"a shorter suspension", group + "a.example until=2026-06-01T12:30:00Z\n",
       group + "a.example until=2026-06-02T00:00:00Z\n", 1805, ""},
      {"a schedule of all times", group + "schedule = Mon..Sun 00:00-24:00\na.example\n",
       group + "enabled = no\na.example\n", 1805, ""},
      {"a shorter delay", "[group work]\ndelay = 14m\na.example\n", group + "enabled = no\na.example\n", 1805, ""},
      {"a lock", lock + "a.example only\n", lock, 1805, ""},
      {"a removal", group, group + "a.example only\n", 910, "a.example"},
      {"the group's removal", "", group + "enabled = no\na.example\n", 910, ""},
  };
  for (const auto& [what, firstFile, secondFile, end, expected] : kCases) {
    Machine machine;
    const auto read = [&](int second, const std::string& text) {
      machine.running = 1000 + second;
      std::string held = machine.read(text);
      machine.restartKeeper();
      return held;
    };
    EXPECT_EQ(read(0, file), ".a.example") << what;
    EXPECT_EQ(read(10, firstFile), ".a.example") << what;
    EXPECT_EQ(read(905, secondFile), ".a.example") << what;
    EXPECT_EQ(read(end - 1, secondFile), ".a.example") << what;
    EXPECT_EQ(read(end, secondFile), expected) << what;
  }
  Machine machine;
  machine.read(file);
  machine.clock += 3600;
  const std::string suspended = group + "a.example until=2026-06-01T12:30:00Z\n";
  EXPECT_EQ(machine.read(suspended), ".a.example") << "with the clock set to a time after the suspension";
  machine.clock -= 3600;
  EXPECT_EQ(machine.read(suspended), ".a.example") << "with the clock set back";
}

}  // namespace
}  // namespace orvane
