#include "companion/list/Group.h"

#include <algorithm>

#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"

namespace orvane {
namespace {

constexpr size_t kLongestName = 64;

bool is_name_character(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;  // a part of a letter in UTF-8
}

bool read_value(std::string_view key, std::string_view value, Group& group, std::string& fault) {
  if (key == kScheduleKey) return group.schedule.add(value, fault);
  if (key == kEnabledKey && (value == "yes" || value == "no")) {
    group.isEnabled = value == "yes";
  } else if (key == kEnabledKey) {
    fault = "write enabled = yes or enabled = no";
  } else if (key == kDelayKey) {
    group.delay = read_delay(value);
  } else if (key == kLockUntilKey) {
    group.lockUntil = read_moment(value);
  } else {
    fault = "a group has no such setting: it has schedule, enabled, delay and lock-until";
  }
  return fault.empty();
}

}  // namespace

std::string group_name_fault(std::string_view name) {
  if (name.empty() || name.size() > kLongestName || !std::all_of(name.begin(), name.end(), is_name_character))
    return "a group's name has letters, digits, hyphens and underscores, at most 64 of them";
  // In the JSON files of the keeper, two names that are not UTF-8 could not be told apart.
  return printable(name, false) == name ? "" : "a group's name is in UTF-8, without control characters";
}

std::optional<std::string_view> group_in_header(std::string_view line) {
  constexpr std::string_view kStart = "[group";
  if (!line.starts_with(kStart) || !line.ends_with(']')) return std::nullopt;
  line = line.substr(kStart.size(), line.size() - kStart.size() - 1);
  const std::string_view name = trimmed(line);
  if (!name.empty() && name.size() == line.size()) return std::nullopt;  // no space after "group"
  return name;
}

std::string header_of(std::string_view group) { return "[group " + std::string(group) + "]"; }

std::string_view key_of_setting(std::string_view line) {
  const size_t sign = line.find('=');
  if (sign == std::string_view::npos) return {};
  const std::string_view key = trimmed(line.substr(0, sign));
  const bool isWord = std::all_of(key.begin(), key.end(), [](char c) { return (c >= 'a' && c <= 'z') || c == '-'; });
  return isWord ? key : std::string_view();
}

std::string setting_line(std::string_view key, std::string_view value) {
  return std::string(key) + " = " + std::string(value);
}

bool read_setting(std::string_view line, Group& group, std::string& fault) {
  fault.clear();
  try {
    return read_value(key_of_setting(line), trimmed(line.substr(line.find('=') + 1)), group, fault);
  } catch (const InputError& error) {
    fault = error.what();
    return false;
  }
}

std::chrono::seconds read_delay(std::string_view text) {
  const std::chrono::seconds delay = read_duration(text);
  if (delay > kLongestDelay) throw InputError("too long a delay: " + in_quotes(text) + ": give at most a week");
  return delay;
}

std::string delay_text(std::chrono::seconds delay) {
  constexpr int64_t kMinute = 60, kHour = 3600;
  const int64_t count = delay.count();
  if (count % kHour == 0) return std::to_string(count / kHour) + "h";
  if (count % kMinute == 0) return std::to_string(count / kMinute) + "m";
  return std::to_string(count) + "s";
}

}  // namespace orvane
