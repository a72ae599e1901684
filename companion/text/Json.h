#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

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

// Reads members of a JSON object, which must outlive this object. If a member is null or missing, read() leaves the
// target unchanged; if a member has the wrong type, read() throws nlohmann::json::exception or InputError.
class Members {
 public:
  explicit Members(const nlohmann::json& object) : object_(object) {
    object_.get_ref<const nlohmann::json::object_t&>();
  }
  Members(const nlohmann::json& object, const char* name) : Members(object.at(name)) {}

  template <class T>
  void read(const char* name, T& target) const {
    if (const nlohmann::json* value = find(name)) value->get_to(target);
  }
  void read(const char* name, Moment& target) const {
    if (const nlohmann::json* value = find(name)) target = read_moment(value->get_ref<const std::string&>());
  }
  template <class T>
  void read(const char* name, std::optional<T>& target) const {
    if (find(name) == nullptr) return;
    T value{};
    read(name, value);
    target = std::move(value);
  }

 private:
  const nlohmann::json* find(const char* name) const {
    auto found = object_.find(name);
    return found == object_.end() || found->is_null() ? nullptr : &*found;
  }
  const nlohmann::json& object_;
};

}  // namespace orvane
