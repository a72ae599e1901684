#include "companion/list/ListImport.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>
#include <unordered_map>
#include <unordered_set>
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

// The kind of address that a line of a hosts file starts with. 0.0.0.0, 127.0.0.1, :: and ::1 are blocking addresses.
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

// Whether a line is a filter list's rule that hides or changes parts of pages, such as "example.com##.banner". Without
// a host before its sign, the line is one only if it goes on like "##.banner"; "##Title" is a comment.
bool hides_elements(std::string_view line) {
  const std::string_view word = take_word(line);
  for (std::string_view sign : {"##", "#@#", "#?#", "#$#", "#%#"}) {
    const size_t at = word.find(sign), next = at + sign.size();
    if (at == std::string_view::npos || next == word.size() || (at == 0 && word[next] == '#')) continue;
    if (at > 0 || std::string_view(".[*:+").find(word[next]) != std::string_view::npos) return true;
  }
  return false;
}

// Whether one of the options limits a rule to a part of the site or to certain requests. An exception with "document"
// says that pages of the site are shown as they are; it does not unblock the site in other pages.
bool has_limiting_option(std::string_view options, Scope scope) {
  constexpr std::string_view kWholeSite[] = {"important", "all", "doc", "document"};
  while (!options.empty()) {
    const size_t end = std::min(options.find(','), options.size());
    const std::string_view option = options.substr(0, end);
    if (!is_one_of(option, kWholeSite) || (scope == Scope::Exception && option != kWholeSite[0])) return true;
    options.remove_prefix(std::min(end + 1, options.size()));
  }
  return false;
}

// Whether a rule of a filter list has a path, a wildcard, a regular expression or an option. Such a rule is not about a
// whole host.
bool has_pattern(std::string_view rule) { return rule.find_first_of("/*^|$?&~#%") != std::string_view::npos; }

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

constexpr std::string_view kEdges = "-_.";

// Whether a line is a filter list's rule about parts of addresses, such as "/banner/" or "-ad/". The line itself shows
// this: neither a host name nor a URL begins in this way or has these characters.
bool is_pattern(std::string_view line) {
  if (line.find_first_of(kLineSpace) != std::string_view::npos || line.starts_with("*.")) return false;
  return line.find_first_of("^|") != std::string_view::npos ||
         std::string_view("/*&?~=:%").find(line.front()) != std::string_view::npos ||
         (kEdges.find(line.front()) != std::string_view::npos && has_pattern(line));
}

// Whether a line of a filter list is a part of an address, such as "-banner-" or "adserver", and not a whole host.
// Elsewhere, such a line is a name.
bool is_fragment(std::string_view line) {
  if (line.find_first_of(kLineSpace) != std::string_view::npos) return false;
  return line.find('.') == std::string_view::npos || kEdges.find(line.front()) != std::string_view::npos ||
         kEdges.find(line.back()) != std::string_view::npos;
}

class ImportReader {
 public:
  ImportReader(const ImportOptions& options, const ImportRejection& rejected)
      : scope_(options.scope),
        mostNames_(options.mostNames),
        hasGroups_(!options.group),
        firstGroup_(options.group.value_or(std::string(kDefaultGroupName))),
        isOnList_(options.isOnList),
        rejected_(rejected) {}

  void readLine(std::string_view line) {
    ++result_.lines;
    countLine();
    line = trimmed(line);
    if (line.starts_with('[')) {
      if (const auto name = group_in_header(trimmed(without_comment(line)))) return readHeader(line, *name);
    }
    if (isComment(line)) return;
    if (isInBadGroup_) return reject(line, kBadGroupFault);
    // In hosts(5), "#" starts a comment even without a space before it.
    std::string_view names = line.substr(0, line.find('#'));
    const std::string_view address = take_word(names);
    const Address kind = names.empty() ? Address::None : address_in(address);
    if (kind != Address::None) return readHostsLine(address, kind, names);
    if (hides_elements(line)) return skipRule();
    line = trimmed(without_comment(line));
    constexpr std::string_view kException = "@@||", kRule = "||";
    if (line.starts_with(kException)) return readRule(line, line.substr(kException.size()), Scope::Exception);
    if (line.starts_with("@@")) return skipRule();
    if (line.starts_with(kRule)) return readRule(line, line.substr(kRule.size()), scope_.value_or(Scope::Subdomains));
    if (is_pattern(line)) return skipRule();
    if (isFilterList_ && is_fragment(line) && !is_local_name(line)) return skipRule();
    readPlainLine(line);
  }

  size_t lines() const { return result_.lines; }
  ImportedSites result() {
    if (result_.groups.empty()) group();
    return std::move(result_);
  }

 private:
  void countLine() {
    if (++counted_ > kMostImportedLines)
      throw InputError("the list has more than four million lines and names: use a smaller one");
  }

  void readHeader(std::string_view line, std::string_view name) {
    if (!hasGroups_) return;
    isInBadGroup_ = false;
    const auto known = std::find_if(result_.groups.begin(), result_.groups.end(),
                                    [&](const Group& group) { return group.name == name; });
    if (known != result_.groups.end()) {
      group_ = static_cast<GroupIndex>(known - result_.groups.begin());
    } else if (const std::string fault = group_name_fault(name); !fault.empty()) {
      rejectGroup(line, fault);
    } else if (result_.groups.size() >= BlockList::kMostGroups) {
      rejectGroup(line, kTooManyGroupsFault);
    } else {
      startGroup(std::string(name));
    }
  }

  void rejectGroup(std::string_view line, const std::string& fault) {
    isInBadGroup_ = true;
    reject(line, fault);
  }

  void startGroup(const std::string& name) {
    group_ = static_cast<GroupIndex>(result_.groups.size());
    result_.groups.push_back({name, true, {}, {}, {}});
    siteByHost_.emplace_back();
  }

  GroupIndex group() {
    if (!group_) startGroup(firstGroup_);
    return *group_;
  }

  bool isComment(std::string_view line) {
    if (line.empty()) return true;
    const bool title = line.front() == '[' && line.back() == ']' && line.find(':') == std::string_view::npos;
    isFilterList_ = isFilterList_ || line.front() == '!' || title || line.starts_with("||") || line.starts_with("@@");
    if (line.front() == '!' || title) return true;
    return line.front() == '#' && !hides_elements(line);
  }

  void readHostsLine(std::string_view address, Address kind, std::string_view names) {
    while (!names.empty()) {
      countLine();
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
      if (has_limiting_option(pattern.substr(dollar + 1), scope)) return skipRule();
      pattern = pattern.substr(0, dollar);
    }
    if (!pattern.empty() && pattern.back() == '|') pattern.remove_suffix(1);
    if (pattern.ends_with('^')) {
      pattern.remove_suffix(1);
    } else if (is_fragment(pattern)) {
      return skipRule();
    }
    if (has_pattern(pattern)) return skipRule();
    ListedSite site{"", scope, {}};
    std::string fault;
    if (!read_hostname(pattern, site.host, fault)) return reject(line, fault);
    addUnlessLocal(line, std::move(site));
  }

  void readPlainLine(std::string_view line) {
    ListedSite site;
    std::string fault;
    if (!key_of_setting(line).empty()) {
      Group ignored;
      if (!read_setting(line, hasGroups_ ? result_.groups[group()] : ignored, fault)) reject(line, fault);
      return;
    }
    if (isOnList_ && read_line(line, Scope::ExactName, site, fault) && isOnList_(site.host))
      return add(std::move(site));
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

  void skipRule() { ++result_.partialRules; }

  void reject(std::string_view text, const std::string& fault) {
    ++result_.rejected;
    rejected_(result_.lines, text, fault);
  }

  void add(ListedSite site) {
    auto& siteByHost = siteByHost_[group()];
    if (auto known = siteByHost.find(site.host); known != siteByHost.end()) {
      ++result_.duplicates;
      known->second->scope = std::max(known->second->scope, site.scope);
      known->second->until = known->second->scope == Scope::Exception ? std::nullopt : site.until;
      return;
    }
    site.group = group();
    ListedSite& added = result_.sites.emplace_back(std::move(site));
    siteByHost.emplace(added.host, &added);
    if (result_.sites.size() > mostNames_)
      throw InputError("the list has more than " + std::to_string(mostNames_) + " names: use a smaller one");
  }

  std::optional<Scope> scope_;
  const size_t mostNames_;
  size_t counted_ = 0;
  const bool hasGroups_;
  const std::string firstGroup_;  // the group of the lines before the first header
  const std::function<bool(const std::string& host)>& isOnList_;
  const ImportRejection& rejected_;
  bool isFilterList_ = false;
  bool isInBadGroup_ = false;
  std::optional<GroupIndex> group_;
  ImportedSites result_;
  // For each group, its sites by host. The pointers lead into result_.sites.
  std::deque<std::unordered_map<std::string_view, ListedSite*, KeyedHash>> siteByHost_;
};

}  // namespace

std::vector<std::string> rejection_texts(const std::string& outcome, const std::string& source,
                                         const std::vector<RejectedLine>& lines, size_t count) {
  const size_t printed = std::min(lines.size(), kMostPrinted);
  std::vector<std::string> texts;
  for (size_t i = 0; i < printed; ++i) {
    const auto& [line, text, fault] = lines[i];
    std::string& error = texts.emplace_back(outcome);
    error.append(": ").append(source).append(":").append(std::to_string(line));
    error.append(": ").append(in_quotes(text)).append(": ").append(fault);
  }
  if (count > printed) texts.push_back(outcome + ": " + std::to_string(count - printed) + " more");
  return texts;
}

ImportedSites read_import(std::string_view text, const ImportOptions& options, const ImportRejection& rejected,
                          const ImportProgress& progress) {
  constexpr size_t kLinesBetweenReports = 4096;
  if (const std::string_view fault = format_fault(text); !fault.empty())
    throw InputError("not a list: " + std::string(fault));
  const size_t size = text.size();
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  ImportReader reader(options, rejected);
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    reader.readLine(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (progress && reader.lines() % kLinesBetweenReports == 0) progress(size - text.size(), reader.lines());
  }
  return reader.result();
}

namespace {

// Writes ImportCounts::record. The lines of the two lists (ImportRecord) may alternate.
class RecordWriter {
 public:
  explicit RecordWriter(std::string& text) : text_(text) {
    text_ = "# The last import, for orvanectl import --undo: the lines before (-) and after (+) it.\n";
  }
  void addGroups(const BlockList& before, const BlockList& after) {
    for (const auto& [part, list] : {std::pair(&before_, &before), std::pair(&after_, &after)}) {
      std::string lines = list->text();
      for (std::string_view rest = lines; !rest.empty();) {
        const size_t end = rest.find('\n');
        addLine(*part, rest.substr(0, end));
        rest.remove_prefix(end + 1);
      }
    }
  }
  void addBefore(const BlockList& list, const ListedSite& site) { addSite(before_, list, site); }
  void addAfter(const BlockList& list, const ListedSite& site) { addSite(after_, list, site); }

 private:
  struct Part {
    const char* mark;
    std::optional<GroupIndex> group{};  // of the lines that follow; nothing before the first site
  };
  void addLine(const Part& part, std::string_view line) { text_.append(part.mark).append(line).append("\n"); }
  void addSite(Part& part, const BlockList& list, const ListedSite& site) {
    if (part.group != site.group) addLine(part, header_of(list.groupOf(site).name));
    part.group = site.group;
    addLine(part, line_of(site));
  }

  std::string& text_;
  Part before_{"- "}, after_{"+ "};
};

// Finds or adds the groups of the import. Returns the index of each in the list.
std::vector<GroupIndex> place_groups(BlockList& list, const ImportedSites& imported, ImportCounts& counts,
                                     RecordWriter& record) {
  std::vector<GroupIndex> places;
  const std::vector<size_t> sites = list.sitesOfGroups();
  BlockList before, after;
  for (const Group& group : imported.groups) {
    const auto known = list.findGroup(group.name);
    if (!known && list.groups().size() >= BlockList::kMostGroups)
      throw InputError("too many groups: remove some: orvanectl group remove");
    const GroupIndex index = known ? *known : list.addGroup(group.name);
    const Group old = list.groups()[index];
    const bool isNew = !known || sites[index] == 0;
    const bool hasSettings = !has_same_settings(group, Group());
    if (isNew && hasSettings) copy_settings(group, list);
    if (!isNew && hasSettings && !has_same_settings(group, old)) counts.unchangedGroups.push_back(group.name);
    const Group& now = list.groups()[index];
    if (!known || !has_same_settings(old, now)) ++counts.groups;
    if (known) copy_settings(old, before);
    copy_settings(now, after);
    places.push_back(index);
  }
  record.addGroups(before, after);
  return places;
}

// In each group of the import, removes the sites that the import does not have.
void remove_others(BlockList& list, const ImportedSites& imported, const std::vector<GroupIndex>& places,
                   ImportCounts& counts, RecordWriter& record) {
  using Hosts = std::unordered_set<std::string_view, KeyedHash>;
  std::vector<std::optional<Hosts>> hosts(list.groups().size());
  for (const GroupIndex place : places) hosts[place].emplace();
  for (const ListedSite& site : imported.sites) hosts[places[site.group]]->insert(site.host);
  for (const ListedSite& site : list.sites()) {
    if (!hosts[site.group] || hosts[site.group]->contains(site.host)) continue;
    record.addBefore(list, site);
    counts.weakenedGroups.insert(list.groupOf(site).name);
    list.remove(site.host, site.group);
    ++counts.removed;
  }
}

}  // namespace

ImportCounts put_imported(BlockList& list, const ImportedSites& imported, bool replace) {
  ImportCounts counts;
  RecordWriter record(counts.record);
  const std::vector<GroupIndex> places = place_groups(list, imported, counts, record);
  for (ListedSite site : imported.sites) {
    site.group = places[site.group];
    const ListedSite* old = list.find(site.host, site.group);
    if (old != nullptr && !replace) site.scope = std::max(site.scope, old->scope);
    if (old != nullptr && !site.until) site.until = old->until;
    if (site.scope == Scope::Exception) site.until.reset();
    ++(old == nullptr ? counts.added : site != *old ? counts.changed : counts.unchanged);
    if (old != nullptr && site == *old) continue;
    if (old != nullptr) {
      record.addBefore(list, *old);
      counts.weakenedGroups.insert(list.groupOf(site).name);
    }
    record.addAfter(list, site);
    counts.extendedGroups.insert(site.group);
    list.put(std::move(site));
  }
  if (replace) remove_others(list, imported, places, counts, record);
  return counts;
}

ImportRecord read_import_record(std::string_view text) {
  std::string before, after;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.starts_with("- ")) before.append(line.substr(2)).append("\n");
    if (line.starts_with("+ ")) after.append(line.substr(2)).append("\n");
  }
  return {BlockList::parse(before), BlockList::parse(after)};
}

namespace {

// Takes the edit of one site back. `before`, `after`: the site before and after the import, of which one may be null.
void take_back_site(BlockList& list, const std::string& group, const ListedSite* before, const ListedSite* after,
                    UndoCounts& counts) {
  const std::string& host = (before != nullptr ? before : after)->host;
  const auto index = list.findGroup(group);
  const ListedSite* now = index ? list.find(host, *index) : nullptr;
  const bool isUnchanged = now == nullptr ? after == nullptr : after != nullptr && now->scope == after->scope;
  if (!index || !isUnchanged) {
    ++counts.changedSince;
  } else if (before != nullptr) {
    ListedSite site = *before;
    site.group = *index;
    list.put(std::move(site));
    if (after != nullptr || before->scope == Scope::Exception) counts.weakenedGroups.insert(group);
    ++counts.restored;
  } else {
    list.remove(host, *index);
    counts.weakenedGroups.insert(group);
    ++counts.removed;
  }
}

}  // namespace

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

UndoCounts take_back(BlockList& list, const ImportRecord& record) {
  UndoCounts counts;
  const BlockList &before = record.before, &after = record.after;
  const auto sameIn = [](const BlockList& other, const BlockList& of, const ListedSite& site) {
    const auto group = other.findGroup(of.groupOf(site).name);
    return group ? other.find(site.host, *group) : nullptr;
  };
  before.forEachSite([&](const ListedSite& site) {
    take_back_site(list, before.groupOf(site).name, &site, sameIn(after, before, site), counts);
  });
  after.forEachSite([&](const ListedSite& site) {
    if (sameIn(before, after, site) == nullptr) take_back_site(list, after.groupOf(site).name, nullptr, &site, counts);
  });
  const std::vector<size_t> sites = list.sitesOfGroups();
  for (const Group& group : after.groups()) {
    const auto old = before.findGroup(group.name), now = list.findGroup(group.name);
    if (!now || (old && has_same_settings(before.groups()[*old], group))) continue;
    if (!has_same_settings(list.groups()[*now], group) || (!old && sites[*now] > 0)) {
      ++counts.changedSince;
      continue;
    }
    old ? static_cast<void>(copy_settings(before.groups()[*old], list)) : list.removeGroup(*now);
    counts.weakenedGroups.insert(group.name);
    ++counts.groups;
  }
  return counts;
}

}  // namespace orvane
