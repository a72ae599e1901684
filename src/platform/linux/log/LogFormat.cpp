#include "platform/linux/log/LogFormat.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace orvane::log_detail {

std::string describe_value(const void* value) { return static_cast<const Value*>(value)->description(); }
std::string describe_view(const void* view) { return std::string(*static_cast<const std::string_view*>(view)); }
std::string describe_string(const void* string) { return *static_cast<const std::string*>(string); }

std::string describe_optional(const void* string) {
  return static_cast<const std::optional<std::string>*>(string)->value_or("(null)");
}

std::string describe_error(const void* error) {
  return error == nullptr ? "(null)" : static_cast<const NSError*>(error)->description();
}

namespace {

void append(std::string& text, const Argument& argument) {
  char buffer[32];
  switch (argument.kind) {
    case Kind::Object:
      text += argument.describe(argument.object);
      return;
    case Kind::Characters:
      text += argument.object == nullptr ? "(null)" : static_cast<const char*>(argument.object);
      return;
    case Kind::Int:
    case Kind::Long:
      std::snprintf(buffer, sizeof buffer, "%" PRId64, static_cast<int64_t>(argument.bits));
      break;
    case Kind::UnsignedLong:
      std::snprintf(buffer, sizeof buffer, "%" PRIu64, argument.bits);
      break;
    case Kind::UnsignedInt:
      std::snprintf(buffer, sizeof buffer, "%.8" PRIx64, argument.bits);
      break;
    case Kind::Address:
      std::snprintf(buffer, sizeof buffer, "%p", argument.object);
      break;
  }
  text += buffer;
}

}  // namespace

std::string render(std::string_view format, std::initializer_list<Argument> arguments) {
  std::string text;
  const Argument* next = arguments.begin();
  while (!format.empty()) {
    size_t literal = std::min(format.find('%'), format.size());
    text += format.substr(0, literal);
    format.remove_prefix(literal);
    if (format.empty()) break;
    append(text, *next++);
    format.remove_prefix(conversion_at(format).length);
  }
  return text;
}

}  // namespace orvane::log_detail
