#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "companion/text/TimeText.h"

namespace orvane {

// The value as JSON; null if there is none. A moment is a string in the form of time_text().
template <class T>
nlohmann::json json_or_null(const std::optional<T>& value) {
  return value ? nlohmann::json(*value) : nlohmann::json();
}
inline nlohmann::json json_or_null(const std::optional<Moment>& moment) {
  return moment ? nlohmann::json(time_text(*moment)) : nlohmann::json();
}

}  // namespace orvane
