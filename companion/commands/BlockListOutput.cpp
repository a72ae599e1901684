#include "companion/commands/BlockListOutput.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "companion/list/BlockListLine.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

void put(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

}  // namespace

std::string site_text(const ListedSite& site) {
  return shown_hostname(site.host) + (has_subdomains(site) ? " and its subdomains" : "");
}

nlohmann::json site_json(const ListedSite& site, Moment now) {
  const char* scope = site.scope == Scope::Subdomains  ? "subdomains"
                      : site.scope == Scope::ExactName ? "exact"
                                                       : "exception";
  nlohmann::json json{{"host", site.host}, {"scope", scope}, {"suspended", site.isSuspended(now)}};
  if (std::string unicode = unicode_hostname(site.host); !unicode.empty()) json["unicode"] = std::move(unicode);
  if (site.until) json["until"] = time_text(*site.until);
  return json;
}

void print_table(const BlockList& list, Moment now) {
  constexpr size_t kWidestHost = 40;
  size_t width = 0, blocked = 0, exceptions = 0, suspended = 0;
  list.forEachSite([&](const ListedSite& site) { width = std::max(width, std::min(site.host.size(), kWidestHost)); });
  list.forEachSite([&](const ListedSite& site) {
    const bool isException = site.scope == Scope::Exception;
    ++(isException ? exceptions : blocked);
    std::string line = site.host;
    line.resize(std::max(width, line.size()), ' ');
    line += has_subdomains(site) ? "  with its subdomains" : "  this name only";
    if (isException) line += "  " + coloured("allowed", Colour::Good);
    if (site.isSuspended(now)) {
      ++suspended;
      line += "  " + coloured("suspended " + suspension_text(*site.until, now), Colour::Warning);
    }
    if (const std::string unicode = unicode_hostname(site.host); !unicode.empty())
      line += "  " + coloured(unicode, Colour::Faint);
    if (site.group != kDefaultGroup) line += "  " + coloured("in " + list.groupOf(site).name, Colour::Faint);
    put(line + '\n');
  });
  if (blocked + exceptions == 0) return put("The list is empty. To add a site: orvanectl block HOST\n");
  std::string counts = counted(blocked, "site", "sites");
  if (exceptions > 0) counts += ", " + counted(exceptions, "exception", "exceptions");
  if (suspended > 0) counts += ", " + counted(suspended, "site suspended", "sites suspended");
  put(coloured(counts, Colour::Faint) + '\n');
}

void print_file(const BlockList& list) {
  BlockList plain;
  for (const Group& group : list.groups()) {
    if (!group.name.empty()) copy_settings(group, plain);
  }
  list.forEachSite([&](const ListedSite& site) {
    ListedSite copy = site;
    copy.group = *plain.findGroup(list.groupOf(site).name);
    plain.put(std::move(copy));
  });
  put(plain.text());
}

void print_hosts(const BlockList& list) {
  list.forEachSite([](const ListedSite& site) {
    if (site.scope != Scope::Exception) put(site.host + '\n');
  });
}

void print_sites_json(const BlockList& list, Moment now) {
  const char* between = "[";
  list.forEachSite([&](const ListedSite& site) {
    nlohmann::json json = site_json(site, now);
    json["group"] = list.groupOf(site).name;
    put(between + json.dump());
    between = ",\n ";
  });
  put(*between == '[' ? "[]\n" : "]\n");
}

void report_bad_lines(const BlockList& list, const std::string& path) {
  for (const auto& bad : list.badLines())
    print_error("bad line ignored: " + in_quotes(path) + ":" + std::to_string(bad.line) + ": " + in_quotes(bad.text) +
                ": " + bad.fault);
}

}  // namespace orvane
