#include "companion/subscriptions/SubscriptionList.h"

#include <algorithm>

#include "companion/list/BlockListLine.h"
#include "companion/list/Group.h"
#include "companion/list/ListImport.h"
#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"

namespace orvane {
namespace {

bool starts_as_web_page(std::string_view body) {
  if (body.starts_with(kByteOrderMark)) body.remove_prefix(kByteOrderMark.size());
  const size_t first = body.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && body[first] == '<';
}

}  // namespace

SubscriptionList convert_list(std::string_view body, const std::string& group, const std::string& source) {
  if (starts_as_web_page(body)) throw InputError("the server sent a web page in place of a list: check the URL");
  SubscriptionList list;
  ListCounts& counts = list.counts;
  const auto rejected = [&](size_t line, std::string_view text, const std::string& fault) {
    if (counts.firstRejected.empty())
      counts.firstRejected = "line " + std::to_string(line) + ": " + in_quotes(text) + ": " + fault;
  };
  ImportedSites imported = read_import(body, {{}, group, kMostSubscribedNames}, rejected, nullptr);
  counts.duplicates = imported.duplicates;
  counts.skipped = imported.skipped + imported.partialRules;
  counts.rejected = imported.rejected;
  const auto hasDot = [](const ListedSite& site) { return site.host.find('.') != std::string::npos; };
  if (std::none_of(imported.sites.begin(), imported.sites.end(), hasDot))
    throw InputError("the server sent no list: no line has the name of a host: check the URL");
  list.text = "# " + source + "\n";
  if (group != kDefaultGroupName) list.text += header_of(group) + "\n";
  for (ListedSite& site : imported.sites) {
    site.until.reset();
    ++(site.scope == Scope::Exception ? counts.exceptions : counts.names);
    list.text.append(line_of(site)).append("\n");
  }
  return list;
}

}  // namespace orvane
