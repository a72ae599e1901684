#include "companion/list/BlockListLine.h"

#include <algorithm>

#include "companion/text/Hostname.h"
#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"
#include "companion/text/TimeText.h"
#include "platform/names/Subdomains.h"

namespace orvane {
namespace {

constexpr std::string_view kOnly = "only";
constexpr std::string_view kAllowed = "allowed";
constexpr std::string_view kUntil = "until=";

bool read_until_word(std::string_view word, std::optional<Moment>& until, std::string& fault) {
  try {
    until = read_moment(word.substr(kUntil.size()));
    return true;
  } catch (const InputError&) {
    fault = in_quotes(word) + " has no valid time: write it as in until=2030-01-31T18:00:00Z";
    return false;
  }
}

}  // namespace

std::string line_of(const ListedSite& site) {
  std::string line;
  if (site.scope == Scope::Subdomains && site_of(site.host) != site.host) line = '.';
  line += site.host;
  if (site.scope == Scope::ExactName) line.append(" ").append(kOnly);
  if (site.scope == Scope::Exception) line.append(" ").append(kAllowed);
  if (site.until) line.append(" ").append(kUntil).append(time_text(*site.until));
  return line;
}

bool read_site(std::string_view host, Scope scope, ListedSite& site, std::string& fault) {
  site = {"", scope, {}};
  const bool keepsPrefix = scope != Scope::Subdomains || host.starts_with('.');
  if (host.size() > 1 && host.starts_with('.')) host.remove_prefix(1);
  if (!read_hostname(host, site.host, fault)) return false;
  if (!keepsPrefix) site.host.erase(0, site.host.size() - site_of(site.host).size());
  return true;
}

std::string scope_fault(const ListedSite& site) {
  if (site.scope == Scope::ExactName || !is_public_suffix(site.host)) return "";
  std::string fault = "it is a public suffix, and the sites below it are unrelated: name one of these sites";
  if (site.scope == Scope::Exception) return fault;
  return fault + "; or, for this exact name alone, use --exact, or \"only\" in a list";
}

bool read_line(std::string_view line, Scope scope, ListedSite& site, std::string& fault) {
  const std::string_view host = take_word(line);
  std::optional<Moment> until;
  while (!line.empty()) {
    std::string_view word = take_word(line);
    if (word == kOnly) {
      scope = Scope::ExactName;
    } else if (word == kAllowed) {
      scope = Scope::Exception;
    } else if (word.starts_with(kUntil)) {
      if (!read_until_word(word, until, fault)) return false;
    } else {
      fault = in_quotes(word) + " is neither \"only\" nor \"allowed\" nor \"until=TIME\": give one host name per line";
      return false;
    }
  }
  if (!read_site(host, scope, site, fault)) return false;
  if (until && scope == Scope::Exception) {
    fault = "an exception has no time: remove \"until=\" or \"allowed\"";
    return false;
  }
  site.until = until;
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
