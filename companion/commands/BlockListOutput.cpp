#include "companion/commands/BlockListOutput.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "companion/list/BlockListLine.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

void put(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

}  // namespace

std::string site_text(const BlockedSite& site) {
  const std::vector<std::string> names = names_of(site);
  std::string text = names.front();
  for (size_t i = 1; i < names.size(); ++i) text += (i == 1 ? ", with " : " and ") + names[i];
  return text;
}

nlohmann::json site_json(const BlockedSite& site, Moment now) {
  nlohmann::json json{{"host", site.host},
                      {"names", names_of(site)},
                      {"usualNames", site.usualNames},
                      {"suspended", site.isSuspended(now)}};
  if (site.until) json["until"] = time_text(*site.until);
  return json;
}

void print_table(const BlockList& list, Moment now) {
  constexpr size_t kWidestHost = 40;
  size_t width = 0, sites = 0, names = 0, suspended = 0;
  list.forEachSite([&](const BlockedSite& site) { width = std::max(width, std::min(site.host.size(), kWidestHost)); });
  list.forEachSite([&](const BlockedSite& site) {
    ++sites;
    const size_t siteNames = names_of(site).size();
    names += siteNames;
    std::string line = site.host;
    line.resize(std::max(width, line.size()), ' ');
    line += siteNames > 1 ? "  with www., m." : "  this name only";
    if (site.isSuspended(now)) {
      ++suspended;
      line += "  " + coloured("suspended " + suspension_text(*site.until, now), Colour::Warning);
    }
    put(line + '\n');
  });
  if (sites == 0) return put("The list is empty. To add a site: orvanectl block HOST\n");
  std::string counts = counted(sites, "site", "sites") + ", " + counted(names, "name", "names");
  if (suspended > 0) counts += ", " + counted(suspended, "site suspended", "sites suspended");
  put(coloured(counts, Colour::Faint) + '\n');
}

void print_lines(const BlockList& list) {
  list.forEachSite([](const BlockedSite& site) { put(line_of(site) + '\n'); });
}

void print_hosts(const BlockList& list) {
  list.forEachSite([](const BlockedSite& site) { put(site.host + '\n'); });
}

void print_sites_json(const BlockList& list, Moment now) {
  const char* between = "[";
  list.forEachSite([&](const BlockedSite& site) {
    put(between + site_json(site, now).dump());
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
