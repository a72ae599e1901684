#include "companion/list/BlockListLine.h"

#include <algorithm>

#include "companion/text/Hostname.h"
#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

constexpr std::string_view kOnly = "only";
constexpr std::string_view kUntil = "until=";

bool read_until_word(std::string_view word, BlockedSite& site, std::string& fault) {
  try {
    site.until = read_moment(word.substr(kUntil.size()));
    return true;
  } catch (const InputError&) {
    fault = in_quotes(word) + " has no valid time: write it as in until=2030-01-31T18:00:00Z";
    return false;
  }
}

}  // namespace

std::string line_of(const BlockedSite& site) {
  std::string line = site.host;
  if (!site.usualNames) line += " only";
  if (site.until) line += " until=" + time_text(*site.until);
  return line;
}

bool read_line(std::string_view line, bool usualNames, BlockedSite& site, std::string& fault) {
  site = {};
  site.usualNames = usualNames;
  if (!read_hostname(take_word(line), site.host, fault)) return false;
  while (!line.empty()) {
    std::string_view word = take_word(line);
    if (word == kOnly) {
      site.usualNames = false;
    } else if (word.substr(0, kUntil.size()) == kUntil) {
      if (!read_until_word(word, site, fault)) return false;
    } else {
      fault = in_quotes(word) + " is neither \"only\" nor \"until=TIME\": give one host name per line";
      return false;
    }
  }
  if (site.usualNames) site.host = site_of(site.host);
  return true;
}

bool read_hostname(std::string_view given, std::string& name, std::string& fault) {
  constexpr size_t kLongest = size_t{4} * 253;  // UTF-8 has at most four bytes per character
  if (given.size() <= kLongest) return normalize_hostname(given, name, fault);
  fault = "it has more than 253 characters: shorten it";
  return false;
}

std::string_view take_word(std::string_view& text) {
  size_t end = std::min(text.find_first_of(kLineSpace), text.size());
  std::string_view word = text.substr(0, end);
  text.remove_prefix(std::min(text.find_first_not_of(kLineSpace, end), text.size()));
  return word;
}

}  // namespace orvane
