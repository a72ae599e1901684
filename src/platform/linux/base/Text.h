#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace orvane {

// The text without the white space around it: spaces, tabs and line ends.
inline std::string_view trim(std::string_view text) {
  constexpr std::string_view kWhiteSpace = " \t\r\n";
  const size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

// The number that the whole text spells, as std::from_chars reads it: no leading '+' and no blanks. For integers,
// `base` may be given. Nothing for any other text, and for a number that does not fit into the type.
template <class Number, class... Base>
std::optional<Number> parse_number(std::string_view text, Base... base) {
  Number number{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base...);
  return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

}  // namespace orvane
