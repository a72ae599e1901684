#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "database/db.h"
#include "database/db_state.h"
#include "platform/StandIn.h"

namespace orvane {

inline Value text(std::string_view characters) { return Value::string(characters); }

inline Value names(std::initializer_list<const char*> list) {
  Value::Set members;
  for (const char* name : list) members.insert(text(name));
  return Value::set(std::move(members));
}

// Properties that suspend a host until a moment.
inline Value until(double absoluteTime) {
  return Value::dictionary({{text("DontBlockUntil"), Value::date(absoluteTime)}});
}

// Runs with a database that has started with an empty list of browsers, and an empty log.
class DatabaseTest : public testing::Test {
 protected:
  DatabaseTest() {
    stand_in::reset();
    stand_in::files().content = "a list";
    stand_in::files().propertyList = Value::array({});
    db_init();
    stand_in::take_log();
    stand_in::take_trace();
  }
  ~DatabaseTest() override {
    stand_in::log().hook = nullptr;
    db_term();
  }
};

}  // namespace orvane
