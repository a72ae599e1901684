#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// Host names as a user gave them, each checked and brought into the form that browsers send.
struct HostnameList {
  struct Refused {
    size_t line;  // counted from 1
    std::string text;
    std::string fault;  // what is wrong and what to do
  };

  std::vector<std::string> names;  // in the order given, duplicates included
  std::vector<Refused> refused;    // the first kRefusalsKept of them
  size_t refusedCount = 0;

  static constexpr size_t kRefusalsKept = 20;

  void add(size_t line, std::string_view given);
};

// A list of one name a line. Line ends are LF or CRLF, a UTF-8 byte order mark at the start is skipped, and so are
// white space around a name, blank lines, and comments: from a "#" at the start or after white space to the line's end.
HostnameList parse_hostname_list(std::string_view text);

// What such lists share with others: the mark at the start of a UTF-8 text, a line without its comment, and a text
// without the white space around it (space, tab, CR).
inline constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
inline constexpr std::string_view kLineSpace = " \t\r";
std::string_view without_comment(std::string_view line);
std::string_view trimmed(std::string_view text);

}  // namespace orvane
