#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/list/Schedule.h"
#include "companion/text/TimeText.h"

namespace orvane {

// A group of sites on the list. orvane-list(5) describes its lines: a header, "[group NAME]", and settings,
// "KEY = VALUE".
struct Group {
  std::string name;
  bool isEnabled = true;
  Schedule schedule;
  std::chrono::seconds delay{0};    // how long it takes until a removal or suspension has an effect
  std::optional<Moment> lockUntil;  // a request: the keeper locks the group until this moment

  bool isInForce(Moment now) const { return isEnabled && schedule.isActive(now); }
  // When isInForce() changes next.
  std::optional<Moment> nextChange(Moment now) const { return isEnabled ? schedule.nextChange(now) : std::nullopt; }
  bool operator==(const Group&) const = default;
};

// The position of a group in BlockList::groups().
using GroupIndex = uint16_t;

// The group of the lines before the first header.
inline constexpr std::string_view kDefaultGroupName = "default";
inline constexpr GroupIndex kDefaultGroup = 0;

// What is wrong with the header of a group that a list has no room for.
inline constexpr const char* kTooManyGroupsFault = "the list has too many groups: remove some";
// What is wrong with each line after a bad header, up to the next header.
inline constexpr const char* kBadGroupFault = "the line that begins its group is bad: correct that line";

// The settings' keys. A group may have several lines with a schedule, of one span each.
inline constexpr std::string_view kScheduleKey = "schedule";     // a span of Schedule::add()
inline constexpr std::string_view kEnabledKey = "enabled";       // yes or no
inline constexpr std::string_view kDelayKey = "delay";           // a duration, at most kLongestDelay
inline constexpr std::string_view kLockUntilKey = "lock-until";  // RFC 3339

inline constexpr std::chrono::seconds kLongestDelay = std::chrono::hours(24 * 7);

// What is wrong with a group's name, and what to do; empty if nothing is.
std::string group_name_fault(std::string_view name);

// The name in a header; nothing if the line, given without its comment, is no header.
std::optional<std::string_view> group_in_header(std::string_view line);
std::string header_of(std::string_view group);

// The key of a setting; empty if the line, given without its comment, is no setting. No line with a host has this form.
std::string_view key_of_setting(std::string_view line);
std::string setting_line(std::string_view key, std::string_view value);

// Reads a setting into `group`. Returns false, changes nothing and sets `fault` if the key or the value is invalid.
bool read_setting(std::string_view line, Group& group, std::string& fault);

// Reads a duration as a group's delay. Throws InputError for one that is too long.
std::chrono::seconds read_delay(std::string_view text);

// The form of a delay in a setting: "15m".
std::string delay_text(std::chrono::seconds delay);

}  // namespace orvane
