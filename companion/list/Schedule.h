#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/text/TimeText.h"

namespace orvane {

// The times of the week at which a group of sites is in force, in local time. When the clocks change, an hour that
// occurs twice counts twice, and a skipped hour never occurs: a span that would begin in a skipped hour begins when
// this hour is skipped.
class Schedule {
 public:
  // A schedule without spans is always active.
  bool isEmpty() const { return spans_.empty(); }

  // Adds a span, written as "[DAYS] HH:MM-HH:MM". DAYS are names of days or ranges of days, as in systemd.time(7):
  // "Mon..Fri", "Sat,Sun". Without DAYS, the span is in force on every day; without times, for the whole day. If the
  // second time is not later than the first, the span ends on the next day. If the text is no span, or if there are
  // kMostSpans already, returns false and sets `fault` to what is wrong and what to do.
  static constexpr size_t kMostSpans = 100;
  bool add(std::string_view text, std::string& fault);

  // One text for each span. add() reads these texts.
  std::vector<std::string> texts() const;

  bool isActive(Moment moment) const;
  // The first moment after `now` at which isActive() changes. Nothing if it never does.
  std::optional<Moment> nextChange(Moment now) const;

  bool operator==(const Schedule&) const = default;

 private:
  struct Span {
    uint8_t days = 0;    // bit 0 is Monday
    uint16_t begin = 0;  // minutes since midnight
    uint16_t end = 0;    // greater than `begin`; beyond 24 hours if the span ends on the next day
    bool operator==(const Span&) const = default;
  };
  using Week = std::bitset<size_t{7} * 24 * 60>;  // a bit for each minute, from the start of Monday

  static bool read(std::string_view text, Span& span);
  Week week() const;

  std::vector<Span> spans_;
};

}  // namespace orvane
