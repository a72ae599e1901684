#include <gtest/gtest.h>

#include <optional>

#include "platform/linux/control/MemoryBudget.h"

namespace orvane {
namespace {

constexpr uid_t kMember = 1000, kKeeper = 1001;

TEST(MemoryBudget, GivesTheNextTurnToTheUserWhoHasWaitedLongest) {
  MemoryBudget budget(100, 100);
  MemoryBudget::Share first(budget, kMember), second(budget, kMember), third(budget, kMember), keeper(budget, kKeeper);
  EXPECT_TRUE(first.take(100));
  EXPECT_FALSE(second.take(100));
  EXPECT_FALSE(third.take(10));
  EXPECT_FALSE(keeper.take(60));
  EXPECT_TRUE(first.release());
  EXPECT_FALSE(second.take(100)) << "it is the keeper's turn";
  EXPECT_TRUE(keeper.take(60));
  EXPECT_FALSE(third.take(10)) << "a small share overtakes a large one, which may then wait for ever";
  EXPECT_FALSE(second.take(100)) << "the shares together exceed the limit";
  EXPECT_TRUE(keeper.release());
  EXPECT_TRUE(second.take(100));
}

TEST(MemoryBudget, LeavesRoomForOtherUsersBesideTheLimitOfAUser) {
  MemoryBudget budget(100, 50);
  MemoryBudget::Share first(budget, kMember), second(budget, kMember), keeper(budget, kKeeper);
  EXPECT_TRUE(first.take(40));
  EXPECT_FALSE(second.take(20));
  EXPECT_TRUE(keeper.take(50));
}

TEST(MemoryBudget, SkipsASessionThatEndsWhileItWaits) {
  MemoryBudget budget(100, 100);
  MemoryBudget::Share first(budget, kMember), keeper(budget, kKeeper);
  std::optional<MemoryBudget::Share> ending;
  EXPECT_TRUE(first.take(100));
  EXPECT_FALSE(ending.emplace(budget, kMember).take(100));
  EXPECT_FALSE(keeper.take(100));
  ending.reset();
  EXPECT_TRUE(first.release());
  EXPECT_TRUE(keeper.take(100));
  EXPECT_FALSE(first.release());
}

}  // namespace
}  // namespace orvane
