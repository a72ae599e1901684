#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "platform/Object.h"
#include "platform/Ref.h"

namespace orvane {
namespace {

class Thing : public NSObject {
 public:
  explicit Thing(std::function<void()> onDestruction) : onDestruction_(std::move(onDestruction)) {}
  ~Thing() override { onDestruction_(); }

 private:
  std::function<void()> onDestruction_;
};

TEST(Ref, StoresTheNewObjectBeforeReleasingTheOldOne) {
  Ref<Thing> holder;
  const Thing* seen = nullptr;
  holder = Ref<Thing>::adopt(new Thing([&] { seen = holder.get(); }));
  holder = Ref<Thing>::adopt(new Thing([] {}));
  EXPECT_EQ(seen, holder.get());
}

}  // namespace
}  // namespace orvane
