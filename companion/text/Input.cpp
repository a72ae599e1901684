#include "companion/text/Input.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

namespace orvane {
namespace {

struct CloseFile {
  void operator()(std::FILE* file) const {
    if (file != stdin) std::fclose(file);
  }
};

FileError file_error(const std::string& path, int error) {
  return FileError("cannot read: " + in_quotes(path) + ": " + std::strerror(error) +
                   ": check the file's name and rights");
}

// The character at the start of a text in UTF-8, and its length in bytes. The length is 0 if the bytes are not UTF-8.
std::pair<char32_t, size_t> first_character(std::string_view text) {
  constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};  // by the length
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) return {first, 1};
  const size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  char32_t character = first & (0x7fU >> length);
  for (size_t i = 1; i < length; ++i) {
    if (i == text.size() || (static_cast<unsigned char>(text[i]) & 0xc0) != 0x80) return {0, 0};
    character = character << 6 | (static_cast<unsigned char>(text[i]) & 0x3f);
  }
  const bool isValid = first >= 0xc0 && first < 0xf8 && character >= kLeast[length] && character <= 0x10ffff &&
                       (character < 0xd800 || character > 0xdfff);
  return {character, isValid ? length : 0};
}

// Whether the character controls a terminal (C0, C1), or the order or the lines of the text around it.
bool is_control(char32_t character) {
  return character < 0x20 || (character >= 0x7f && character < 0xa0) || character == 0x61c || character == 0x200e ||
         character == 0x200f || (character >= 0x2028 && character <= 0x202e) ||
         (character >= 0x2066 && character <= 0x2069);
}

}  // namespace

std::string read_input(const std::string& path) {
  std::unique_ptr<std::FILE, CloseFile> file(path == "-" ? stdin : std::fopen(path.c_str(), "rb"));
  if (!file) throw file_error(path, errno);
  constexpr size_t kChunk = size_t{1} << 20;
  std::string text;
  for (size_t got = kChunk; got == kChunk;) {
    size_t before = text.size();
    text.resize(before + kChunk);
    got = std::fread(text.data() + before, 1, kChunk, file.get());
    int error = errno;
    text.resize(before + got);
    if (std::ferror(file.get()) != 0) throw file_error(path, error);
    if (text.size() > kLargestInput) throw InputError("too large: " + in_quotes(path) + ": give at most 256 MiB");
  }
  return text;
}

std::string printable(std::string_view text, bool keepsLineEnds) {
  std::string result;
  while (!text.empty()) {
    const auto [character, length] = first_character(text);
    const std::string_view bytes = text.substr(0, std::max<size_t>(length, 1));
    text.remove_prefix(bytes.size());
    if (length > 0 && (!is_control(character) || (keepsLineEnds && character == '\n'))) {
      result += bytes;
      continue;
    }
    for (char byte : bytes) {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(byte));
      result += escaped;
    }
  }
  return result;
}

std::string in_quotes(std::string_view text) {
  constexpr size_t kShown = 100;
  return '"' + printable(text.substr(0, kShown), false) + (text.size() > kShown ? "...\"" : "\"");
}

}  // namespace orvane
