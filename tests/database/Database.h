#pragma once

#include <gtest/gtest.h>

#include "database/db.h"
#include "database/db_browsers.h"
#include "database/db_properties.h"
#include "database/db_state.h"
#include "platform/StandIn.h"

namespace orvane {

inline Value text(std::string_view characters) { return Value::string(characters); }

// Properties that suspend a host until an absolute time, in seconds since 2001.
inline Value until(double absoluteTime) {
  return Value::dictionary({{text("DontBlockUntil"), Value::date(absoluteTime)}});
}

// Starts the database with an empty browsers list, and empties the log and the trace.
class DatabaseTest : public testing::Test {
 protected:
  DatabaseTest() {
    stand_in::reset();
    stand_in::files.content = "a list";
    stand_in::files.propertyList = Value::array({});
    db_init();
    stand_in::take_log();
    stand_in::take_trace();
  }
  ~DatabaseTest() override { db_term(); }
};

}  // namespace orvane
