#include "companion/list/ListImport.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>
#include <unordered_map>
#include <utility>

#include "companion/list/BlockListLine.h"
#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"
#include "platform/KeyedHash.h"

namespace orvane {
namespace {

template <size_t size>
bool is_one_of(std::string_view text, const std::string_view (&texts)[size]) {
  return std::find(std::begin(texts), std::end(texts), text) != std::end(texts);
}

// The names that hosts files have for the machine itself and its network.
bool is_local_name(std::string_view name) {
  constexpr std::string_view kNames[] = {"localhost",
                                         "localhost.localdomain",
                                         "localhost4",
                                         "localhost6",
                                         "local",
                                         "broadcasthost",
                                         "ip6-localhost",
                                         "ip6-loopback",
                                         "ip6-localnet",
                                         "ip6-mcastprefix",
                                         "ip6-allnodes",
                                         "ip6-allrouters",
                                         "ip6-allhosts",
                                         "0.0.0.0",
                                         "localhost6.localdomain6",
                                         "localhost4.localdomain4"};
  return is_one_of(name, kNames);
}

// The kind of address that a line of a hosts file starts with. A blocking address is unspecified or loopback.
enum class Address { None, Blocking, Other };

Address address_in(std::string_view word) {
  const std::string text(word.substr(0, word.find('%')));  // "fe80::1%lo0" ends in the name of an interface
  in_addr ipv4{};
  in6_addr ipv6{};
  if (inet_pton(AF_INET, text.c_str(), &ipv4) == 1) {
    const bool isBlocking = ipv4.s_addr == htonl(INADDR_ANY) || ipv4.s_addr == htonl(INADDR_LOOPBACK);
    return isBlocking ? Address::Blocking : Address::Other;
  }
  if (inet_pton(AF_INET6, text.c_str(), &ipv6) != 1) return Address::None;
  const bool isBlocking = IN6_IS_ADDR_UNSPECIFIED(&ipv6) || IN6_IS_ADDR_LOOPBACK(&ipv6);
  return isBlocking ? Address::Blocking : Address::Other;
}

// Whether a line is a filter list's rule that hides parts of pages, such as "example.com##.banner".
bool hides_elements(std::string_view line) {
  const std::string_view word = take_word(line);
  for (std::string_view sign : {"##", "#@#", "#?#", "#$#"}) {
    const size_t at = word.find(sign);
    if (at != std::string_view::npos && word.find_first_not_of('#', at + sign.size()) == at + sign.size()) return true;
  }
  return false;
}

// The first option that limits a rule to a part of the site or to certain requests. Empty if there is none.
std::string_view limiting_option(std::string_view options) {
  constexpr std::string_view kWholeSite[] = {"all", "doc", "document", "important"};
  while (!options.empty()) {
    const size_t end = std::min(options.find(','), options.size());
    if (!is_one_of(options.substr(0, end), kWholeSite)) return options.substr(0, end);
    options.remove_prefix(std::min(end + 1, options.size()));
  }
  return {};
}

// Why a text cannot be a list; empty if it can.
std::string_view format_fault(std::string_view text) {
  using namespace std::string_view_literals;
  // gzip, xz, zstd, zip
  constexpr std::string_view kCompressed[] = {"\037\213"sv, "\3757zXZ\0"sv, "\050\265\057\375"sv, "PK\3\4"sv};
  for (std::string_view start : kCompressed) {
    if (text.starts_with(start)) return "it is compressed: unpack it first";
  }
  if (text.starts_with("BZh") && text.size() > 4 && text.substr(4, 6) == "1AY&SY")
    return "it is compressed: unpack it first";
  const bool isUTF16 = text.size() > 1 && (text[0] == 0) != (text[1] == 0);
  if (isUTF16 || text.starts_with("\xff\xfe") || text.starts_with("\xfe\xff"))
    return "it is UTF-16: save the text as UTF-8";
  return {};
}

class ImportReader {
 public:
  ImportReader(std::optional<Scope> scope, const ImportRejection& rejected) : scope_(scope), rejected_(rejected) {}

  void readLine(std::string_view line) {
    ++result_.lines;
    line = trimmed(line);
    if (isComment(line)) return;
    // In hosts(5), "#" starts a comment even without a space before it.
    std::string_view names = line.substr(0, line.find('#'));
    const std::string_view address = take_word(names);
    const Address kind = names.empty() ? Address::None : address_in(address);
    if (kind != Address::None) return readHostsLine(address, kind, names);
    if (hides_elements(line)) return reject(line, "it hides parts of pages: only whole sites can be blocked");
    line = trimmed(without_comment(line));
    constexpr std::string_view kException = "@@||", kRule = "||";
    if (line.starts_with(kException)) return readRule(line, line.substr(kException.size()), Scope::Exception);
    if (line.starts_with("@@"))
      return reject(line, "it is an exception for parts of sites: only exceptions for whole sites are taken");
    if (line.starts_with(kRule)) return readRule(line, line.substr(kRule.size()), scope_.value_or(Scope::Subdomains));
    readPlainLine(line);
  }

  ImportedSites& result() { return result_; }

 private:
  bool isComment(std::string_view line) {
    if (line.empty()) return true;
    const bool title = line.front() == '[' && line.back() == ']' && line.find(':') == std::string_view::npos;
    isFilterList_ = isFilterList_ || line.front() == '!' || title || line.starts_with("||") || line.starts_with("@@");
    if (line.front() == '!' || title) return true;
    // A line such as "##.banner" is a rule only in a filter list; in other lists, "##Title" is a comment.
    return line.front() == '#' && !(isFilterList_ && hides_elements(line));
  }

  void readHostsLine(std::string_view address, Address kind, std::string_view names) {
    while (!names.empty()) {
      ListedSite site{"", scope_.value_or(Scope::ExactName), {}};
      const std::string_view name = take_word(names);
      std::string fault;
      const bool isName = read_hostname(name, site.host, fault);
      if (is_local_name(isName ? site.host : name)) {
        ++result_.skipped;
      } else if (kind == Address::Other) {
        reject(name, "it is given the address " + in_quotes(address) +
                         ", which does not block it: to block it, give the name alone");
      } else if (isName) {
        add(std::move(site));
      } else {
        reject(name, fault);
      }
    }
  }

  // `pattern` is the part of the line after "||" or "@@||".
  void readRule(std::string_view line, std::string_view pattern, Scope scope) {
    if (const size_t dollar = pattern.find('$'); dollar != std::string_view::npos) {
      const std::string_view option = limiting_option(pattern.substr(dollar + 1));
      if (!option.empty())
        return reject(line, "its option " + in_quotes(option) + " limits it: only rules for a whole site are taken");
      pattern = pattern.substr(0, dollar);
    }
    if (!pattern.empty() && pattern.back() == '|') pattern.remove_suffix(1);
    if (!pattern.empty() && pattern.back() == '^') pattern.remove_suffix(1);
    ListedSite site{"", scope, {}};
    std::string fault;
    if (!read_hostname(pattern, site.host, fault)) return reject(line, fault);
    addUnlessLocal(line, std::move(site));
  }

  void readPlainLine(std::string_view line) {
    ListedSite site;
    std::string fault;
    const bool isLine = read_line(line, scope_.value_or(Scope::Subdomains), site, fault);
    if (isLine) return addUnlessLocal(line, std::move(site));
    if (!is_local_name(line)) return reject(line, fault);
    ++result_.skipped;
  }

  void addUnlessLocal(std::string_view line, ListedSite site) {
    if (is_local_name(site.host)) {
      ++result_.skipped;
    } else if (std::string fault = scope_fault(site); !fault.empty()) {
      reject(line, fault);
    } else {
      add(std::move(site));
    }
  }

  void reject(std::string_view text, const std::string& fault) {
    ++result_.rejected;
    rejected_(result_.lines, text, fault);
  }

  void add(ListedSite site) {
    if (auto known = siteByHost_.find(site.host); known != siteByHost_.end()) {
      ++result_.duplicates;
      known->second->scope = std::max(known->second->scope, site.scope);
      known->second->until = known->second->scope == Scope::Exception ? std::nullopt : site.until;
      return;
    }
    ListedSite& added = result_.sites.emplace_back(std::move(site));
    siteByHost_.emplace(added.host, &added);
  }

  std::optional<Scope> scope_;
  const ImportRejection& rejected_;
  bool isFilterList_ = false;
  ImportedSites result_;
  std::unordered_map<std::string_view, ListedSite*, KeyedHash> siteByHost_;  // points into result_.sites
};

}  // namespace

ImportedSites read_import(std::string_view text, std::optional<Scope> scope, const ImportRejection& rejected,
                          const ImportProgress& progress) {
  constexpr size_t kLinesBetweenReports = 4096;
  if (const std::string_view fault = format_fault(text); !fault.empty())
    throw InputError("not a list: " + std::string(fault));
  const size_t size = text.size();
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  ImportReader reader(scope, rejected);
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    reader.readLine(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (progress && reader.result().lines % kLinesBetweenReports == 0)
      progress(size - text.size(), reader.result().lines);
  }
  return std::move(reader.result());
}

namespace {

// Copies all groups with their settings, and the sites of all groups but the default group.
void copy_other_groups(const BlockList& from, BlockList& list) {
  for (const Group& group : from.groups()) {
    if (!group.name.empty()) copy_settings(group, list);
  }
  from.forEachSite([&](ListedSite site) {
    if (site.group == kDefaultGroup) return;
    site.group = *list.findGroup(from.groupOf(site).name);
    list.put(std::move(site));
  });
}

}  // namespace

ImportCounts put_imported(BlockList& list, const ImportedSites& imported, bool replace) {
  ImportCounts counts;
  const BlockList before = replace ? std::exchange(list, BlockList()) : BlockList();
  copy_other_groups(before, list);
  for (ListedSite site : imported.sites) {
    const ListedSite* old = (replace ? before : list).find(site.host);
    if (old != nullptr && !replace) site.scope = std::max(site.scope, old->scope);
    if (old != nullptr && !site.until) site.until = old->until;
    if (site.scope == Scope::Exception) site.until.reset();
    ++(old == nullptr ? counts.added : site != *old ? counts.changed : counts.unchanged);
    if (old == nullptr || site != *old)
      counts.edits.push_back({old == nullptr ? std::nullopt : std::optional(*old), site});
    list.put(std::move(site));
  }
  before.forEachSite([&](const ListedSite& site) {
    if (site.group != kDefaultGroup || list.find(site.host) != nullptr) return;
    counts.edits.push_back({site, std::nullopt});
    ++counts.removed;
  });
  return counts;
}

std::string import_record(const std::vector<SiteEdit>& edits) {
  std::string text = "# The last import, for orvanectl import --undo: the lines before (-) and after (+) it.\n";
  for (const auto& [before, after] : edits) {
    if (before) text.append("- ").append(line_of(*before)).append("\n");
    if (after) text.append("+ ").append(line_of(*after)).append("\n");
  }
  return text;
}

std::vector<SiteEdit> import_record_edits(std::string_view text) {
  std::vector<SiteEdit> edits;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!line.starts_with("- ") && !line.starts_with("+ ")) continue;
    const bool isAfter = take_word(line) == "+";
    ListedSite site;
    std::string fault;
    if (line.empty() || !read_line(line, Scope::Subdomains, site, fault)) continue;
    if (!isAfter) {
      edits.push_back({std::move(site), std::nullopt});
    } else if (!edits.empty() && edits.back().before && !edits.back().after && edits.back().before->host == site.host) {
      edits.back().after = std::move(site);
    } else {
      edits.push_back({std::nullopt, std::move(site)});
    }
  }
  return edits;
}

UndoCounts take_back(BlockList& list, const std::vector<SiteEdit>& edits) {
  UndoCounts counts;
  for (const auto& [before, after] : edits) {
    const std::string& host = (after ? after : before)->host;
    const ListedSite* now = list.find(host);
    const bool isUnchanged = now == nullptr ? !after : after && now->scope == after->scope;
    if (!isUnchanged) {
      ++counts.changedSince;
    } else if (before) {
      list.put(*before);
      ++counts.restored;
    } else {
      list.remove(host);
      ++counts.removed;
    }
  }
  return counts;
}

}  // namespace orvane
