#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// Host names from a user, each checked and converted by normalize_hostname().
struct HostnameList {
  struct Refused {
    size_t line;  // counted from 1
    std::string text;
    std::string fault;  // what is wrong and what to do
  };

  std::vector<std::string> names;  // in the order given, duplicates included
  std::vector<Refused> refused;    // only the first kRefusalsKept names that were refused
  size_t refusedCount = 0;

  static constexpr size_t kRefusalsKept = 20;

  void add(size_t line, std::string_view given);
};

// Reads one name per line; lines end with LF or CRLF. Skips a UTF-8 byte order mark at the start, white space around a
// name, blank lines, and comments. A comment starts at a "#" that is first on its line or follows white space.
HostnameList parse_hostname_list(std::string_view text);

// Parts of this syntax, for functions that read other lists. White space is a space, a tab or CR.
inline constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
inline constexpr std::string_view kLineSpace = " \t\r";
std::string_view without_comment(std::string_view line);
std::string_view trimmed(std::string_view text);

}  // namespace orvane
