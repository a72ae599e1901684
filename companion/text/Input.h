#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace orvane {

// The user's input is invalid. what() says what failed, on what, and what to do.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A file could not be read or written. what() says what failed, on what, and what to do.
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The limit on the size of one file, in bytes.
inline constexpr size_t kLargestInput = size_t{256} << 20;

// All bytes of a file, or of standard input if `path` is "-". Throws FileError, or InputError if the file is larger
// than kLargestInput.
std::string read_input(const std::string& path);

// The text, safe for a terminal and for a log: the bytes of control characters, of the characters that change the
// direction of a text or end a line, and of whatever is not UTF-8, are written as \xNN. With `keepsLineEnds`, line
// feeds stay.
std::string printable(std::string_view text, bool keepsLineEnds);

// A text in quotes, made printable. Only the first 100 bytes are shown.
std::string in_quotes(std::string_view text);

}  // namespace orvane
