#include <gtest/gtest.h>

#include <chrono>
#include <future>

#import "platform/macos/control/OrvaneController.h"
#include "service/OrvaneController.h"

namespace orvane {

// A second shell would have a monitor of its own, and let two edits in at once.
TEST(ControllerShell, IsMadeTwiceOrLocksApartFromItsController) {
  auto* controller = OrvaneController::shared();
  ::OrvaneController* shell = [::OrvaneController shellFor:controller];
  EXPECT_EQ([::OrvaneController shellFor:controller], shell);
  std::future<void> edit;
  @synchronized(shell) {
    edit = std::async(std::launch::async, [&] { ObjectMonitor outer(controller), inner(controller); });
    EXPECT_EQ(edit.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  }
  EXPECT_EQ(edit.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

}  // namespace orvane
