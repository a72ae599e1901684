#include "platform/macos/base/UTF16.h"

#include <cstdint>

namespace orvane {
namespace {

struct Character {
  char32_t codePoint;
  size_t length;  // in bytes or UTF-16 units
};

constexpr Character kReplacement = {0xfffd, 1};

bool is_high(char32_t unit) { return unit >= 0xd800 && unit < 0xdc00; }
bool is_low(char32_t unit) { return unit >= 0xdc00 && unit < 0xe000; }

// The first character of a non-empty text.
Character first_character(std::string_view text) {
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};  // [n]: the smallest code point that takes n bytes
  const auto lead = static_cast<uint8_t>(text[0]);
  if (lead < 0x80) return {lead, 1};
  const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc0 || lead >= 0xf8 || text.size() < length) return kReplacement;
  char32_t codePoint = lead & (0x7fU >> length);
  for (size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<uint8_t>(text[i]);
    if ((byte & 0xc0) != 0x80) return kReplacement;
    codePoint = codePoint << 6 | (byte & 0x3fU);
  }
  return codePoint < kSmallest[length] || codePoint > 0x10ffff ? kReplacement : Character{codePoint, length};
}

Character first_character(std::u16string_view units) {
  const char32_t high = units[0];
  if (!is_high(high) || units.size() < 2 || !is_low(units[1])) return {high, 1};
  return {0x10000 + ((high - 0xd800) << 10) + (units[1] - 0xdc00U), 2};
}

void append(std::u16string& units, char32_t codePoint) {
  if (codePoint < 0x10000) {
    units += static_cast<char16_t>(codePoint);
  } else {
    units += static_cast<char16_t>(0xd800 + ((codePoint - 0x10000) >> 10));
    units += static_cast<char16_t>(0xdc00 + ((codePoint - 0x10000) & 0x3ff));
  }
}

void append(std::string& text, char32_t codePoint) {
  if (codePoint < 0x80) {
    text += static_cast<char>(codePoint);
    return;
  }
  const int continuations = codePoint < 0x800 ? 1 : codePoint < 0x10000 ? 2 : 3;
  text += static_cast<char>((0xff00U >> (continuations + 1) & 0xff) | codePoint >> 6 * continuations);
  for (int i = continuations - 1; i >= 0; --i) text += static_cast<char>(0x80 | (codePoint >> 6 * i & 0x3f));
}

template <class Result, class View>
Result converted(View from) {
  Result result;
  result.reserve(from.size());
  while (!from.empty()) {
    const Character character = first_character(from);
    append(result, character.codePoint);
    from.remove_prefix(character.length);
  }
  return result;
}

}  // namespace

std::u16string utf16_of(std::string_view text) { return converted<std::u16string>(text); }
std::string utf8_of(std::u16string_view units) { return converted<std::string>(units); }

}  // namespace orvane
