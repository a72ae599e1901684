#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace orvane {

// What the user gave cannot be used. The text says what failed, on what, and what to do.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A file could not be read. The text as above.
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The most that is read from one file.
inline constexpr size_t kLargestInput = size_t{256} << 20;

// All bytes of a file; of standard input for "-". Throws FileError; InputError for more than kLargestInput bytes.
std::string read_input(const std::string& path);

// A text in quotes for a message: shortened where long, what a terminal would act upon written as \xNN.
std::string in_quotes(std::string_view text);

}  // namespace orvane
