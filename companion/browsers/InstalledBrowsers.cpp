#include "companion/browsers/InstalledBrowsers.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>

#include "platform/files/Files.h"
#include "platform/linux/base/Paths.h"
#include "platform/linux/process/DesktopEntry.h"
#include "platform/linux/process/ProcessIdentity.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

constexpr size_t kEntryLimit = size_t{1} << 20;
constexpr std::string_view kGroup = "Desktop Entry";

// The browsers whose family we know. A browser belongs to the first entry whose `part` occurs in its identifier.
struct KnownBrowser {
  std::string_view part;  // a part of the identifier, in lower case
  BrowserFamily family;
  std::string_view policyFolder;  // empty when none is documented
};
constexpr std::array kKnownBrowsers = {
    KnownBrowser{"firefox", BrowserFamily::Firefox, "/etc/firefox/policies"},
    KnownBrowser{"chromium-browser", BrowserFamily::Chromium, "/etc/chromium-browser/policies/managed"},
    KnownBrowser{"chromium", BrowserFamily::Chromium, "/etc/chromium/policies/managed"},
    KnownBrowser{"chrome", BrowserFamily::Chromium, "/etc/opt/chrome/policies/managed"},
    KnownBrowser{"edge", BrowserFamily::Chromium, "/etc/opt/edge/policies/managed"},
    KnownBrowser{"brave", BrowserFamily::Chromium, "/etc/brave/policies/managed"},
    KnownBrowser{"vivaldi", BrowserFamily::Chromium, ""},
    KnownBrowser{"opera", BrowserFamily::Chromium, ""},
    KnownBrowser{"librewolf", BrowserFamily::Firefox, ""},
    KnownBrowser{"waterfox", BrowserFamily::Firefox, ""},
    KnownBrowser{"floorp", BrowserFamily::Firefox, ""},
    KnownBrowser{"zen_browser", BrowserFamily::Firefox, ""},
    KnownBrowser{"torbrowser", BrowserFamily::Firefox, ""},
};

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return text;
}

// Sets the members `family` and `place`, which follow from the browser's identifier.
void classify(InstalledBrowser& browser) {
  std::string identifier = lower(browser.identifier);
  // Ubuntu's snap of Chromium replaced the package chromium-browser and reads that package's policy folder.
  if (browser.package == BrowserPackage::Snap && identifier == "chromium") identifier = "chromium-browser";
  auto known = std::find_if(kKnownBrowsers.begin(), kKnownBrowsers.end(), [&](const KnownBrowser& candidate) {
    return identifier.find(candidate.part) != std::string::npos;
  });
  if (known == kKnownBrowsers.end()) return;
  browser.family = known->family;
  const bool isFlatpak = browser.package == BrowserPackage::Flatpak;
  for (const PolicyPlace& place : policy_places()) {
    if (isFlatpak ? place.flatpak == browser.identifier : place.folder == known->policyFolder) browser.place = &place;
  }
}

// Finds browsers in folders of desktop entries.
class Search {
 public:
  explicit Search(const ApplicationFolders& folders)
      : programs_(folders.programs), index_(folders, std::chrono::hours(1)) {}

  void look(const std::string& folder) {
    std::error_code error;
    std::vector<fs::path> entries;
    for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
      if (it->path().extension() == ".desktop") entries.push_back(it->path());
    }
    std::sort(entries.begin(), entries.end());
    for (const fs::path& entry : entries) read(entry.string());
  }

  std::vector<InstalledBrowser> result() && {
    std::vector<InstalledBrowser> browsers;
    for (auto& [identifier, browser] : found_) browsers.push_back(std::move(browser));
    std::stable_sort(browsers.begin(), browsers.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return browsers;
  }

 private:
  void read(const std::string& path) {
    auto text = read_file_start(path, kEntryLimit, Links::Follow);
    if (!text) return;
    const std::string categories = ';' + std::string(key_file_value(*text, kGroup, "Categories").value_or("")) + ';';
    if (categories.find(";WebBrowser;") == std::string::npos) return;
    const std::vector<std::string> programs = programs_of_desktop_entry(*text);
    if (programs.empty()) return;
    InstalledBrowser browser;
    browser.entry = path;
    browser.name = key_file_value(*text, kGroup, "Name").value_or(fs::path(path).stem().string());
    identify(browser, *text, programs.front());
    classify(browser);
    found_.try_emplace(browser.identifier.empty() ? path : browser.identifier, browser);
  }

  void identify(InstalledBrowser& browser, const std::string& entry, const std::string& program) {
    if (auto flatpak = key_file_value(entry, kGroup, "X-Flatpak")) {
      browser.package = BrowserPackage::Flatpak;
      browser.identifier = *flatpak;
      return;
    }
    auto snap = key_file_value(entry, kGroup, "X-SnapInstanceName");
    if (snap || program.starts_with("/snap/bin/")) {
      browser.package = BrowserPackage::Snap;
      // A snap with several commands names them SNAP.COMMAND. snap_of_path() knows which snap names are valid.
      std::string name = std::string(snap ? *snap : file_name(program));
      browser.identifier = snap_of_path("/snap/" + name.substr(0, name.find('.')) + "/current").value_or(name);
      return;
    }
    const std::string path = resolve_links(find_program(program, programs_));
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) return;
    const std::string runs = interpreter_of(path);
    browser.identifier =
        runs.empty() ? index_.applicationOf({path, status.st_dev, status.st_ino}).value_or(std::string(file_name(path)))
                     : std::string(file_name(runs));
  }

  // The extension identifies a running script by its interpreter. Returns the interpreter's path, with links resolved.
  // Empty in three cases: the program is not a script; runs_other_programs() does not know the interpreter; the program
  // is a shell script, because a browser's shell script only starts the real browser.
  std::string interpreter_of(const std::string& path) const {
    auto start = read_file_start(path, 256, Links::Follow);
    if (!start || !start->starts_with("#!")) return {};
    std::string line = start->substr(2, start->find('\n') - 2);
    auto word = [&line] {
      size_t begin = std::min(line.find_first_not_of(" \t"), line.size());
      size_t end = std::min(line.find_first_of(" \t\r", begin), line.size());
      std::string taken = line.substr(begin, end - begin);
      line.erase(0, end);
      return taken;
    };
    std::string program = word();
    if (file_name(program) == "env") program = find_program(word(), programs_);
    program = resolve_links(program);
    const std::string_view name = file_name(program);
    return !runs_other_programs(name) || name.ends_with("sh") || name == "busybox" ? "" : program;
  }

  const std::vector<std::string> programs_;
  ApplicationIndex index_;
  std::map<std::string, InstalledBrowser> found_;  // by identifier
};

}  // namespace

std::vector<InstalledBrowser> installed_browsers(const ApplicationFolders& folders,
                                                 const std::vector<std::string>& ownFolders) {
  Search search(folders);
  for (const std::string& folder : folders.entries) search.look(folder);
  for (const std::string& folder : ownFolders) search.look(folder);
  return std::move(search).result();
}

std::vector<std::string> own_application_folders(const std::string& home) {
  return {home + "/.local/share/applications", home + "/.local/share/flatpak/exports/share/applications"};
}

}  // namespace orvane
