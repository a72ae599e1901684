#include "platform/StandIn.h"

namespace orvane::stand_in {

void reset() {
  take_trace();
  take_log();
  log().enabled = {{LogLevel::Default, true}, {LogLevel::Info, true}, {LogLevel::Debug, true}, {LogLevel::Error, true}};
  log().hook = nullptr;
  nextInitialiserFails = false;
  nextUnlockStatus = 0;
  files() = {};
  security() = {};
  dns() = {};
  filter() = {};
  listener() = {};
}

}  // namespace orvane::stand_in
