#include "companion/text/Input.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

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

}  // namespace

std::string read_input(const std::string& path) {
  std::unique_ptr<std::FILE, CloseFile> file(path == "-" ? stdin : std::fopen(path.c_str(), "rb"));
  if (!file) throw file_error(path, errno);
  constexpr size_t kChunk = size_t{1} << 20;
  std::string text;
  for (size_t got = kChunk; got == kChunk;) {
    size_t before = text.size();
    if (before > kLargestInput) throw InputError("too large: " + in_quotes(path) + ": give at most 256 MiB");
    text.resize(before + kChunk);
    got = std::fread(text.data() + before, 1, kChunk, file.get());
    int error = errno;
    text.resize(before + got);
    if (std::ferror(file.get()) != 0) throw file_error(path, error);
  }
  return text;
}

std::string in_quotes(std::string_view text) {
  constexpr size_t kShown = 100;
  std::string result = "\"";
  for (size_t i = 0; i < text.size() && i < kShown; ++i) {
    auto byte = static_cast<unsigned char>(text[i]);
    auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    // C2 starts the UTF-8 form of the control characters U+0080 to U+009F.
    if (byte < 0x20 || byte == 0x7f || (byte == 0xc2 && next < 0xa0)) {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      result += escaped;
    } else {
      result += text[i];
    }
  }
  return result + (text.size() > kShown ? "...\"" : "\"");
}

}  // namespace orvane
