#pragma once

#include <cstdlib>
#include <ctime>
#include <string>

namespace orvane {

// Sets the time zone of this process until the end of the scope.
class TimeZone {
 public:
  explicit TimeZone(const char* zone) {
    if (const char* before = getenv("TZ")) before_ = before;
    set(zone);
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
  ~TimeZone() { set(before_.empty() ? nullptr : before_.c_str()); }

 private:
  static void set(const char* zone) {
    zone != nullptr ? setenv("TZ", zone, 1) : unsetenv("TZ");
    tzset();
  }
  std::string before_;
};

}  // namespace orvane
