#include "companion/list/SiteCatalogue.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <system_error>
#include <utility>

#include "companion/list/BlockListLine.h"
#include "companion/text/EditDistance.h"
#include "companion/text/Hostname.h"
#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"
#include "platform/files/Files.h"

namespace orvane {
namespace {

constexpr std::string_view kSuffix = ".site";
constexpr std::string_view kNameKey = "name:";
constexpr std::string_view kCategoryKey = "category:";
constexpr size_t kLargestFile = size_t{64} << 10;

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string in_lower_case(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), lower);
  return result;
}

// The letters and digits of a text, in lower case. All bytes that are not ASCII count as letters.
std::string plain(std::string_view text) {
  std::string result = in_lower_case(text);
  std::erase_if(result, [](char c) {
    return !((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || static_cast<unsigned char>(c) >= 0x80);
  });
  return result;
}

// Whether the text can be a category, or the name of a site's file without the suffix.
bool is_word(std::string_view text) {
  const auto isPart = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-'; };
  return !text.empty() && text.front() != '-' && std::all_of(text.begin(), text.end(), isPart);
}

std::string read_name(std::string_view value, std::string& name) {
  // A terminal must be able to show the name as it is.
  if (value.empty() || in_quotes(value).size() != value.size() + 2)
    return "a site's name has 1 to 100 bytes, without control characters";
  name = value;
  return "";
}

std::string read_category(std::string_view value, std::string& category) {
  if (!is_word(value)) return "a category is one word of small letters, digits and hyphens";
  category = value;
  return "";
}

std::string read_host(std::string_view line, std::vector<ListedSite>& hosts) {
  constexpr std::string_view kOnly = "only";
  const std::string_view host = take_word(line);
  if (!line.empty() && line != kOnly) return in_quotes(line) + " is not \"only\": give one host name per line";
  ListedSite site;
  std::string fault;
  if (!read_site(host, line == kOnly ? Scope::ExactName : Scope::Subdomains, site, fault)) return fault;
  if (fault = scope_fault(site); !fault.empty()) return fault;
  const auto isSame = [&](const ListedSite& each) { return each.host == site.host; };
  if (std::any_of(hosts.begin(), hosts.end(), isSame)) return "the file names this host twice: remove one of the lines";
  hosts.push_back(std::move(site));
  return "";
}

std::string read_any_line(std::string_view line, CatalogueSite& site) {
  if (line.starts_with(kNameKey)) return read_name(trimmed(line.substr(kNameKey.size())), site.name);
  if (line.starts_with(kCategoryKey)) return read_category(trimmed(line.substr(kCategoryKey.size())), site.category);
  return read_host(line, site.hosts);
}

}  // namespace

bool read_site_file(std::string_view text, CatalogueSite& site, const SiteFault& report) {
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  size_t number = 0;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = trimmed(without_comment(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
    ++number;
    if (line.empty()) continue;
    if (const std::string fault = read_any_line(line, site); !fault.empty()) report(number, line, fault);
  }
  const char* missing = site.name.empty()       ? "name: NAME"
                        : site.category.empty() ? "category: CATEGORY"
                        : site.hosts.empty()    ? "HOST"
                                                : nullptr;
  if (missing != nullptr) report(number, "", std::string("the file has no valid line \"") + missing + "\": add one");
  return missing == nullptr;
}

SiteCatalogue SiteCatalogue::read(const std::vector<std::string>& folders) {
  SiteCatalogue catalogue;
  for (const std::string& folder : folders) catalogue.readFolder(folder);
  return catalogue;
}

void SiteCatalogue::readFolder(const std::string& folder) {
  std::error_code error;
  std::set<std::filesystem::path> files;
  std::filesystem::directory_iterator entry(folder, error), end;
  for (; !error && entry != end; entry.increment(error)) {
    const std::filesystem::path& path = entry->path();
    if (path.extension() == kSuffix && !path.filename().string().starts_with('.')) files.insert(path);
  }
  if (error && error != std::errc::no_such_file_or_directory && error != std::errc::not_a_directory)
    faults_.push_back("cannot read: " + in_quotes(folder) + ": " + error.message() + ": check the folder's rights");
  for (const std::filesystem::path& file : files) readFile(file, file.stem());
}

void SiteCatalogue::readFile(const std::string& path, const std::string& id) {
  const auto ignored = [&](const std::string& where, const std::string& fault) {
    faults_.push_back("site ignored: " + in_quotes(path) + where + ": " + fault);
  };
  if (!is_word(id)) return ignored("", "give the file a name of small letters, digits and hyphens");
  const auto text = read_file_start(path, kLargestFile + 1, Links::Follow);
  if (!text) return ignored("", "it cannot be read: check its rights, and that it is a regular file");
  if (text->size() > kLargestFile) return ignored("", "it is too large: give at most 64 KiB");
  CatalogueSite site;
  site.id = id;
  site.file = path;
  const bool isUsable = read_site_file(*text, site, [&](size_t line, std::string_view bad, const std::string& fault) {
    const std::string where = ":" + std::to_string(line);
    if (bad.empty()) return ignored(where, fault);
    faults_.push_back("bad line ignored: " + in_quotes(path) + where + ": " + in_quotes(bad) + ": " + fault);
  });
  if (!isUsable) return;
  const auto isBefore = [](const CatalogueSite& each, const std::string& other) { return each.id < other; };
  const auto place = std::lower_bound(sites_.begin(), sites_.end(), id, isBefore);
  if (place != sites_.end() && place->id == id) {
    *place = std::move(site);
  } else {
    sites_.insert(place, std::move(site));
  }
}

std::vector<std::string> SiteCatalogue::categories() const {
  std::set<std::string> names;
  for (const CatalogueSite& site : sites_) names.insert(site.category);
  return {names.begin(), names.end()};
}

std::vector<const CatalogueSite*> SiteCatalogue::ofCategory(std::string_view name) const {
  std::vector<const CatalogueSite*> found;
  for (const CatalogueSite& site : sites_) {
    if (plain(site.category) == plain(name)) found.push_back(&site);
  }
  return found;
}

const CatalogueSite* SiteCatalogue::find(std::string_view name) const {
  const std::string wanted = plain(name);
  const CatalogueSite* found = nullptr;
  for (const CatalogueSite& site : sites_) {
    if (site.id == name) return &site;
    if (found == nullptr && (plain(site.id) == wanted || plain(site.name) == wanted)) found = &site;
  }
  return wanted.empty() ? nullptr : found;
}

std::vector<const CatalogueSite*> SiteCatalogue::search(std::string_view word) const {
  const std::string wanted = plain(word), typed = in_lower_case(word);
  const auto has = [](const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  };
  std::vector<const CatalogueSite*> found;
  for (const CatalogueSite& site : sites_) {
    const bool isHost = std::any_of(site.hosts.begin(), site.hosts.end(),
                                    [&](const ListedSite& each) { return has(each.host, typed); });
    const bool isName = !wanted.empty() && (has(plain(site.id), wanted) || has(plain(site.name), wanted));
    if (isHost || isName || site.category == typed) found.push_back(&site);
  }
  return found;
}

std::vector<const CatalogueSite*> SiteCatalogue::similar(std::string_view word) const {
  constexpr size_t kMost = 3, kShortest = 3;
  const std::string wanted = plain(word), typed = in_lower_case(word);
  const std::string_view host = site_of(host_in(typed));
  // The smaller the number, the more similar the site is.
  const auto difference = [&](const CatalogueSite& site) {
    const auto isHost = [&](const ListedSite& each) { return each.host == host; };
    if (std::any_of(site.hosts.begin(), site.hosts.end(), isHost)) return size_t{0};
    const std::string id = plain(site.id), name = plain(site.name);
    const bool hasPart =
        wanted.size() >= kShortest && (id.find(wanted) != std::string::npos || name.find(wanted) != std::string::npos);
    return hasPart ? size_t{1} : std::min(edit_distance(wanted, id), edit_distance(wanted, name));
  };
  const size_t most = std::min(wanted.size() / kShortest, size_t{2});
  std::vector<std::pair<size_t, const CatalogueSite*>> found;
  for (const CatalogueSite& site : sites_) {
    const size_t distance = difference(site);
    if (distance <= most) found.emplace_back(distance, &site);
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const auto& one, const auto& other) { return one.first < other.first; });
  std::vector<const CatalogueSite*> best;
  for (size_t i = 0; i < std::min(found.size(), kMost); ++i) best.push_back(found[i].second);
  return best;
}

}  // namespace orvane
