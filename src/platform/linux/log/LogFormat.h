#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Foundation.h"
#include "platform/Ref.h"
#include "platform/Value.h"

// Formats of log messages, with some of the conversions of os_log(3):
//
//   %@    an object (Value, string or error)    %d    int            %ld   long    %lu   unsigned long
//   %s    characters                            %p    an address     %.8x  unsigned
//
// On Linux, %{public}@ is the same as %@. On macOS, the log hides the text of %@, and shows the text of %{public}@.
namespace orvane::log_detail {

enum class Kind : uint8_t { Object, Int, Long, UnsignedLong, Characters, Address, UnsignedInt };

// One argument of a message. Refers to the caller's value; valid only during the logging statement.
struct Argument {
  Kind kind;
  const void* object = nullptr;
  std::string (*describe)(const void*) = nullptr;
  uint64_t bits = 0;
};

std::string describe_value(const void* value);
std::string describe_view(const void* view);
std::string describe_string(const void* string);
std::string describe_optional(const void* string);
std::string describe_error(const void* error);

inline Argument argument(const Value& v) { return {Kind::Object, &v, describe_value}; }
inline Argument argument(const std::string_view& v) { return {Kind::Object, &v, describe_view}; }
inline Argument argument(const std::string& v) { return {Kind::Object, &v, describe_string}; }
inline Argument argument(const std::optional<std::string>& v) { return {Kind::Object, &v, describe_optional}; }
inline Argument argument(const Ref<NSError>& v) { return {Kind::Object, v.get(), describe_error}; }
inline Argument argument(int v) { return {Kind::Int, nullptr, nullptr, static_cast<uint64_t>(v)}; }
inline Argument argument(long v) { return {Kind::Long, nullptr, nullptr, static_cast<uint64_t>(v)}; }
inline Argument argument(unsigned long v) { return {Kind::UnsignedLong, nullptr, nullptr, v}; }
inline Argument argument(unsigned int v) { return {Kind::UnsignedInt, nullptr, nullptr, v}; }
inline Argument argument(const char* v) { return {Kind::Characters, v}; }
inline Argument argument(const void* v) { return {Kind::Address, v}; }

template <class T, class... Choices>
inline constexpr bool is_one_of = (std::is_same_v<T, Choices> || ...);

// The kind of an argument of type T. If no conversion takes this type, the logging statement does not compile.
template <class T>
constexpr Kind kind_of() {
  using Bare = std::decay_t<T>;
  if constexpr (std::is_same_v<Bare, int>) {
    return Kind::Int;
  } else if constexpr (std::is_same_v<Bare, long>) {
    return Kind::Long;
  } else if constexpr (std::is_same_v<Bare, unsigned long>) {
    return Kind::UnsignedLong;
  } else if constexpr (std::is_same_v<Bare, unsigned int>) {
    return Kind::UnsignedInt;
  } else if constexpr (is_one_of<Bare, const char*, char*>) {
    return Kind::Characters;
  } else if constexpr (std::is_pointer_v<Bare>) {
    return Kind::Address;
  } else {
    static_assert(is_one_of<Bare, Value, std::string_view, std::string, std::optional<std::string>, Ref<NSError>>,
                  "no conversion takes an argument of this type");
    return Kind::Object;
  }
}

template <class... T>
struct Kinds {};

template <class... T>
Kinds<T...> kinds(const T&...);

// The conversion at the start of `text`. The length is 0 for an unknown conversion.
struct Conversion {
  size_t length;
  Kind kind;
};

constexpr Conversion conversion_at(std::string_view text) {
  constexpr struct {
    std::string_view text;
    Kind kind;
  } kKnown[] = {{"%@", Kind::Object},  {"%{public}@", Kind::Object}, {"%d", Kind::Int},
                {"%ld", Kind::Long},   {"%lu", Kind::UnsignedLong},  {"%s", Kind::Characters},
                {"%p", Kind::Address}, {"%.8x", Kind::UnsignedInt}};
  for (const auto& known : kKnown) {
    if (text.substr(0, known.text.size()) == known.text) return {known.text.size(), known.kind};
  }
  return {0, Kind::Object};
}

template <class... T>
constexpr bool accepts(std::string_view format, Kinds<T...>) {
  constexpr size_t kCount = sizeof...(T);
  const Kind given[kCount + 1] = {kind_of<T>()...};
  size_t used = 0;
  for (size_t i = 0; i < format.size();) {
    if (format[i] != '%') {
      ++i;
      continue;
    }
    Conversion conversion = conversion_at(format.substr(i));
    if (conversion.length == 0 || used == kCount || given[used] != conversion.kind) return false;
    ++used;
    i += conversion.length;
  }
  return used == kCount;
}

// The text of a message.
std::string render(std::string_view format, std::initializer_list<Argument> arguments);

}  // namespace orvane::log_detail
