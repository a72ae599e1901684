#include <gtest/gtest.h>

#include <chrono>
#include <future>

#import "platform/macos/control/OrvaneController.h"
#include "service/OrvaneController.h"

namespace orvane {

// If the adapter and the controller had separate monitors, two edits could run at once.
TEST(ControllerAdapter, SharesTheMonitorOfItsController) {
  auto* controller = OrvaneController::shared();
  ::OrvaneController* adapter = [::OrvaneController adapterFor:controller];
  EXPECT_EQ([::OrvaneController adapterFor:controller], adapter);
  std::future<void> edit;
  @synchronized(adapter) {
    edit = std::async(std::launch::async, [&] { ObjectMonitor outer(controller), inner(controller); });
    EXPECT_EQ(edit.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  }
  edit.get();
}

}  // namespace orvane
