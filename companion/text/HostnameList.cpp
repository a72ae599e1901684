#include "companion/text/HostnameList.h"

#include <algorithm>
#include <utility>

#include "companion/text/Hostname.h"

namespace orvane {

std::string_view without_comment(std::string_view line) {
  for (size_t at = line.find('#'); at != std::string_view::npos; at = line.find('#', at + 1)) {
    if (at == 0 || kLineSpace.find(line[at - 1]) != std::string_view::npos) return line.substr(0, at);
  }
  return line;
}

std::string_view trimmed(std::string_view text) {
  size_t start = text.find_first_not_of(kLineSpace);
  if (start == std::string_view::npos) return {};
  return text.substr(start, text.find_last_not_of(kLineSpace) + 1 - start);
}

void HostnameList::add(size_t line, std::string_view given) {
  std::string name, fault;
  if (normalize_hostname(given, name, fault)) {
    names.push_back(std::move(name));
  } else if (refusedCount++ < kRefusalsKept) {
    refused.push_back({line, std::string(given), std::move(fault)});
  }
}

HostnameList parse_hostname_list(std::string_view text) {
  HostnameList list;
  if (text.substr(0, kByteOrderMark.size()) == kByteOrderMark) text.remove_prefix(kByteOrderMark.size());
  for (size_t line = 1; !text.empty(); ++line) {
    size_t end = std::min(text.find('\n'), text.size());
    std::string_view given = trimmed(without_comment(text.substr(0, end)));
    if (!given.empty()) list.add(line, given);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return list;
}

}  // namespace orvane
