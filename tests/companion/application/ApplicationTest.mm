#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>

#include "companion/application/Advice.h"
#import "companion/application/ControlCommand.h"
#include "companion/application/ListState.h"
#include "companion/application/Protection.h"
#import "companion/application/Switch.h"
#include "companion/keeper/KeeperState.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

TEST(Application, SaysWhichConditionIsMissingAndWhatToDo) {
  const std::string failure = "orvanectl: cannot reach the extension: switch it on\n";
  using State = ProtectionState;
  const Moment now = now_in_seconds(), soon = now + std::chrono::minutes(30);
  const ListState old, current{true, 0, {}, false}, suspended{true, 2, soon, true};
  const std::tuple<const char*, Protection, State, std::optional<std::string>> rows[] = {
      {"nothing", {}, State::SwitchedOff, "Off, and not set up yet: nothing is blocked. Press Switch On."},
      {"switched off while the extension still runs", Protection{true, false, 0, "7\n", "", current},
       State::SwitchedOff, "Off: nothing is blocked. Press Switch On."},
      {"no answer yet", Protection{true, true, std::nullopt, "", "", current}, State::Unknown,
       "Switched on. Asking the extension..."},
      {"no answer", Protection{true, true, 1, "", failure, old}, State::NoAnswer,
       "Not on: the filter is switched on, but the extension does not answer. Press Activate. If that does not help, "
       "restart the Mac. (cannot reach the extension: switch it on)"},
      {"an answer of a command that failed", Protection{true, true, 1, "7\n", failure, current}, State::NoAnswer,
       std::nullopt},
      {"no list", Protection{true, true, 0, "0\n", "", old}, State::NoList,
       "Not on: the extension runs, but has no list, so nothing is blocked. Switch the list on."},
      {"no answer about the list yet", Protection{true, true, 0, "10\n", "", std::nullopt}, State::Unknown,
       "Switched on. Asking the extension..."},
      {"an old list, or names edited by others", Protection{true, true, 0, "10\n", "", old}, State::NotInForce,
       "Not on: the extension has a list, but the current list is not in force. The row List says more."},
      {"all four", Protection{true, true, 0, "10\n", "", current}, State::On, "On"},
      {"all four, suspended names", Protection{true, true, 0, "10\n", "", suspended}, State::On,
       "On, but 2 names are suspended until " + local_text(soon, now)},
  };
  std::set<std::string> titles;
  for (const auto& [name, protection, state, text] : rows) {
    EXPECT_EQ(state_of(protection), state) << name;
    if (text) EXPECT_EQ(window_text(protection, now), *text) << name;
    titles.insert(menu_title(state));
  }
  EXPECT_EQ(titles.size(), 6U) << "each state has its own title";
}

// The highest codes are those of the headers.
TEST(Application, HasAdviceForEachErrorCode) {
  const std::tuple<std::string (*)(int64_t), int64_t, int64_t> rows[] = {{extension_advice, 1, 13},
                                                                         {filter_advice, 1, 5}};
  for (const auto& [advice, first, last] : rows) {
    std::set<std::string> texts;
    for (int64_t code = first; code <= last; ++code) texts.insert(advice(code));
    EXPECT_EQ(texts.size(), static_cast<size_t>(last - first + 1)) << "two codes have the same advice";
    for (int64_t code : {INT64_MIN, int64_t{0}, last + 100, INT64_MAX}) {
      EXPECT_NE(advice(code).find("log show"), std::string::npos) << code;
    }
  }
}

TEST(Application, GivesAdviceOnErrorsOfOtherDomainsToo) {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  const auto text = [](NSString* domain) {
    NSError* error = [NSError errorWithDomain:domain code:3 userInfo:nil];
    return std::string([failure_text(error, @"known", extension_advice) UTF8String]);
  };
  EXPECT_NE(text(@"known").find("(known, 3) " + extension_advice(3)), std::string::npos) << text(@"known");
  EXPECT_NE(text(@"other").find("(other, 3) " + extension_advice(1)), std::string::npos) << text(@"other");
  [pool drain];
}

struct Ended {
  bool isEnded = false;
  int exitCode = 0;
  std::string output, error;
};

Ended run(NSString* path, NSArray* arguments, double timeout = 20) {
  __block Ended ended;
  @autoreleasepool {
    [ControlCommand run:path
              arguments:arguments
                timeout:timeout
                   then:^(int exitCode, NSString* output, NSString* error) {
                     ended = {true, exitCode, [output UTF8String], [error UTF8String]};
                   }];
    NSDate* limit = [NSDate dateWithTimeIntervalSinceNow:20];
    while (!ended.isEnded && [limit timeIntervalSinceNow] > 0) {
      [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode beforeDate:[NSDate dateWithTimeIntervalSinceNow:0.01]];
    }
  }
  return ended;
}

TEST(Application, ReportsHowACommandEnds) {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  const Ended done = run(@"/bin/sh", @[ @"-c", @"echo out; echo err >&2; exit 3" ]);
  EXPECT_EQ(std::tie(done.exitCode, done.output, done.error), std::make_tuple(3, "out\n", "err\n"));
  const Ended large = run(@"/bin/sh", @[ @"-c", @"seq 100000" ]);
  EXPECT_EQ(large.output.size(), 588895U) << "more than a pipe holds";
  const Ended missing = run(@"/nonexistent/orvanectl", @[]);
  EXPECT_TRUE(missing.isEnded);
  EXPECT_NE(missing.exitCode, 0);
  EXPECT_NE(missing.error, "");
  const Ended late = run(@"/bin/sleep", @[ @"60" ], 0.2);
  EXPECT_TRUE(late.isEnded);
  EXPECT_NE(late.exitCode, 0);
  EXPECT_EQ(late.error, "no answer in time");
  [pool drain];
}

TEST(Application, SaysWhetherTheListIsInForceAndWhatIsSuspended) {
  const Moment now = now_in_seconds(), soon = now + std::chrono::minutes(30), later = soon + std::chrono::hours(1);
  const std::string text = local_text(soon, now);
  const std::tuple<const char*, bool, std::vector<Moment>, size_t, std::string> rows[] = {
      {"not in force", false, {soon}, 1, "On, but not in force: \"orvanectl status\" says why"},
      {"in force", true, {}, 0, "On, and in force"},
      {"one suspension", true, {soon}, 1, "On, but 1 name is suspended until " + text},
      {"all suspended for the same time", true, {soon, soon}, 2, "On, but 2 names are suspended until " + text},
      {"different ends", true, {later, soon}, 2, "On, but 2 names are suspended, some of them until " + text},
      {"more than are listed", true, {soon}, 2, "On, but 2 names are suspended, some of them until " + text},
  };
  for (const auto& [name, isInForce, ends, count, expected] : rows) {
    KeeperState keeper;
    for (const Moment end : ends) keeper.suspended.emplace_back(".a.example", end);
    keeper.suspendedNames = count;
    const nlohmann::json status = {{"inForce", isInForce}, {"keeper", to_json(keeper)}};
    EXPECT_EQ(list_text(list_state(status.dump()), now), expected) << name;
  }
  KeeperState edited;
  edited.changesOfOthers = 1;
  const ListState state = list_state(nlohmann::json({{"inForce", true}, {"keeper", to_json(edited)}}).dump());
  EXPECT_FALSE(state.isInForce);
  EXPECT_NE(list_text(state, now).find("another user or program"), std::string::npos) << list_text(state, now);
  for (const char* output : {"", "no JSON", "{}", R"({"inForce":true,"keeper":{}})"})
    EXPECT_FALSE(list_state(output).isInForce) << output;
}

TEST(Application, SuspendsAllSitesAndBlocksThemAgain) {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  const TemporaryFolder folder;
  const auto list = folder.write("list", "a.example\nb.example\n");
  const auto orvanectl = [&](const char* arguments) {
    NSString* line = [NSString
        stringWithFormat:@"--list\n%s\n--state\n%s.state\n--socket\n%s.socket\n%@", list.c_str(), list.c_str(),
                         list.c_str(), [@(arguments) stringByReplacingOccurrencesOfString:@" " withString:@"\n"]];
    return run(@(ORVANECTL), [line componentsSeparatedByString:@"\n"]);
  };
  const Ended suspended = orvanectl(kSuspendArguments);
  EXPECT_EQ(suspended.exitCode, 0) << suspended.error;
  EXPECT_NE(folder.read("list").find("b.example until="), std::string::npos) << folder.read("list");
  const Ended resumed = orvanectl(kResumeArguments);
  EXPECT_EQ(resumed.exitCode, 0) << resumed.error;
  EXPECT_EQ(folder.read("list"), "a.example\nb.example\n");
  const Ended status = orvanectl(kStatusArguments);
  EXPECT_EQ(status.exitCode, 3) << status.error;
  EXPECT_NE(status.output.find("\"keeper\":null"), std::string::npos) << status.output;
  [pool drain];
}

TEST(Application, SaysWhyTheListWasNotChanged) {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  const Ended failed = run(@(ORVANECTL), @[ @"--list", @"/", @"resume", @"--all" ]);
  EXPECT_EQ(edit_fault(failed.exitCode, failed.error), "not a file: \"/\": name the list's file");
  EXPECT_EQ(edit_fault(0, "orvanectl: saved, but\n\norvanectl: not in force\n"), "saved, but\n\nnot in force");
  EXPECT_NE(edit_fault(1, ""), "");
  EXPECT_EQ(edit_fault(0, ""), "");
  [pool drain];
}

}  // namespace
}  // namespace orvane
