#include "platform/linux/process/ApplicationIndex.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>
#include <unordered_map>

#include "platform/files/Files.h"
#include "platform/linux/base/Paths.h"
#include "platform/linux/process/DesktopEntry.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSuffix = ".desktop";
constexpr size_t kEntryLimit = size_t{1024} * 1024;  // an entry with a hundred translations takes 60 KiB
constexpr int kDepthLimit = 8;                       // of nested folders; ends loops of symbolic links

// Identifies a version of a folder. All zero for a folder that does not exist.
struct FolderState {
  dev_t device = 0;
  ino_t inode = 0;
  timespec modified{};

  static FolderState of(const std::string& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) return {};
    return {status.st_dev, status.st_ino, status.st_mtim};
  }
  bool operator==(const FolderState& other) const {
    return device == other.device && inode == other.inode && modified.tv_sec == other.modified.tv_sec &&
           modified.tv_nsec == other.modified.tv_nsec;
  }
};

struct FileKey {
  dev_t device;
  ino_t inode;
  bool operator==(const FileKey& other) const { return device == other.device && inode == other.inode; }
  struct Hash {
    size_t operator()(const FileKey& key) const { return std::hash<uint64_t>()(key.inode * 31 + key.device); }
  };
};

std::string parent_folder(std::string_view path) { return std::string(path.substr(0, path.rfind('/'))); }
std::string join(std::string folder, const std::string& name) {
  folder += '/';
  return folder += name;
}

// Chooses between two desktop entries that name `program`. Returns whether the program belongs to the entry with the ID
// `left`, and not to the entry with the ID `right`.
bool is_preferred(const std::string& program, const std::string& left, const std::string& right) {
  const std::string_view name = file_name(program);
  if ((left == name) != (right == name)) return left == name;
  if (left.size() != right.size()) return left.size() < right.size();
  return left < right;
}

}  // namespace

// The result of reading the folders once. Immutable.
struct ApplicationEntries {
  std::map<std::string, FolderState> folders;  // all folders that were read, by path
  // Whether a folder changed just before it was read. File times are coarse, so a change after the reading could leave
  // the folder's time as it is and go unnoticed. So if hasRecentChange is true, the next check reads the entries again
  // in any case.
  bool hasRecentChange = false;

  std::unordered_map<FileKey, std::string, FileKey::Hash> byFile;
  std::unordered_map<std::string, std::string> byPath;
  std::unordered_map<std::string, std::string> byFolder;
  std::set<std::string, std::less<>> applications;

  bool changed() const {
    return hasRecentChange || std::any_of(folders.begin(), folders.end(), [](const auto& folder) {
             return !(FolderState::of(folder.first) == folder.second);
           });
  }
};

namespace {

// A program that desktop entries name.
struct NamedProgram {
  FileKey file;
  std::set<std::string> names;  // the program's file name, and the names in the entries, which may be symbolic links
  std::string application;      // the ID of the preferred entry
};

class EntryReader {
 public:
  explicit EntryReader(const ApplicationFolders& folders) : folders_(folders) {}

  std::shared_ptr<const ApplicationEntries> read() {
    timespec start{};
    ::clock_gettime(CLOCK_REALTIME, &start);
    for (const auto& list : {folders_.programs, folders_.libraries}) {
      for (const std::string& folder : list) {
        recordState(folder);
        shared_.insert(resolve_links(folder));
      }
    }
    for (const std::string& folder : folders_.entries) findEntries(folder, "", 0);
    for (const auto& [id, path] : entries_) readEntry(id, path);
    for (const auto& [path, program] : programs_) {
      result_->byFile[program.file] = program.application;
      result_->byPath[path] = program.application;
      result_->applications.insert(program.application);
    }
    assignFolders();
    // A change is recent if it is at most two seconds old, because the coarsest file systems store times in steps of
    // two seconds.
    for (const auto& [path, state] : result_->folders) {
      if (std::abs(state.modified.tv_sec - start.tv_sec) <= 2) result_->hasRecentChange = true;
    }
    return std::move(result_);
  }

 private:
  // Call this before reading the folder, so that a change during the reading is noticed.
  void recordState(const std::string& folder) { result_->folders.try_emplace(folder, FolderState::of(folder)); }

  void findEntries(const std::string& folder, const std::string& prefix, int depth) {
    recordState(folder);
    std::error_code error;
    std::vector<fs::directory_entry> found;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) found.push_back(*it);
    std::sort(found.begin(), found.end());
    for (const fs::directory_entry& entry : found) {
      std::string name = entry.path().filename().string();
      if (entry.is_directory(error)) {
        if (depth < kDepthLimit) findEntries(entry.path().string(), prefix + name + "-", depth + 1);
      } else if (name.size() > kSuffix.size() && name.ends_with(kSuffix)) {
        std::string id = prefix + name.substr(0, name.size() - kSuffix.size());
        entries_.try_emplace(std::move(id), entry.path().string());
      }
    }
  }

  void readEntry(const std::string& id, const std::string& path) {
    auto text = read_file_start(path, kEntryLimit, Links::Follow);
    if (!text) return;
    for (const std::string& written : programs_of_desktop_entry(*text)) {
      if (!runs_other_programs(file_name(written))) addProgram(id, written);
    }
  }

  void addProgram(const std::string& id, const std::string& written) {
    std::string path = find_program(written, folders_.programs);
    std::string resolved = resolve_links(path);
    struct stat status;
    if (::stat(resolved.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
      // The program's package may be half installed. So the program's folder is recorded, too: when the folder changes,
      // the entries are read again.
      if (!path.empty()) recordState(parent_folder(path));
      return;
    }
    path = std::move(resolved);
    if (runs_other_programs(file_name(path))) return;
    NamedProgram& program = programs_[path];
    if (program.application.empty() || is_preferred(path, id, program.application)) program.application = id;
    program.file = {status.st_dev, status.st_ino};
    program.names.emplace(file_name(path));
    program.names.emplace(file_name(written));
  }

  void assignFolders() {
    // The keys are folders. byProgram: the applications that have a program in the folder. byName: if the folder is
    // LIBRARY/NAME, the applications that have a program called NAME in a shared folder.
    std::map<std::string, std::set<std::string>> byProgram, byName;
    for (const auto& [path, program] : programs_) {
      std::string folder = parent_folder(path);
      if (shared_.count(folder) == 0) {
        byProgram[folder].insert(program.application);
        continue;
      }
      for (const std::string& library : folders_.libraries) {
        for (const std::string& name : program.names) {
          std::string own = resolve_links(join(library, name));
          if (!own.empty()) byName[own].insert(program.application);
        }
      }
    }
    byProgram.merge(byName);  // if a folder is in both maps, only its entry in byProgram counts
    for (const auto& [folder, applications] : byProgram) {
      if (applications.size() == 1 && shared_.count(folder) == 0) result_->byFolder[folder] = *applications.begin();
    }
  }

  const ApplicationFolders& folders_;
  std::set<std::string> shared_{""};  // folders that many applications share, as resolved paths; "" is the root
  std::shared_ptr<ApplicationEntries> result_ = std::make_shared<ApplicationEntries>();
  std::map<std::string, std::string> entries_;  // the path of each entry, by its ID
  std::map<std::string, NamedProgram> programs_;
};

}  // namespace

ApplicationFolders ApplicationFolders::system() {
  ApplicationFolders folders;
  folders.entries = {"/usr/local/share/applications", "/usr/share/applications",
                     "/var/lib/flatpak/exports/share/applications", "/var/lib/snapd/desktop/applications"};
  folders.programs = {"/usr/local/sbin", "/usr/local/bin",   "/usr/sbin", "/usr/bin", "/sbin", "/bin",
                      "/usr/games",      "/usr/local/games", "/snap/bin"};
  folders.libraries = {"/usr/lib",           "/usr/lib64", "/usr/libexec", "/usr/share",       "/usr/local/lib",
                       "/usr/local/libexec", "/lib",       "/lib64",       "/usr/local/share", "/opt"};
  // Debian's folders for one architecture, for example /usr/lib/x86_64-linux-gnu.
  std::error_code error;
  for (fs::directory_iterator it("/usr/lib", error), end; !error && it != end; it.increment(error)) {
    std::string path = it->path().string();
    if (path.find("-linux-gnu") == std::string::npos) continue;
    folders.libraries.push_back(path);
    folders.libraries.push_back(path + "/libexec");
  }
  return folders;
}

ApplicationIndex::ApplicationIndex(ApplicationFolders folders, std::chrono::milliseconds interval)
    : folders_(std::move(folders)), interval_(interval) {}

ApplicationIndex::~ApplicationIndex() = default;

std::shared_ptr<const ApplicationEntries> ApplicationIndex::entries() {
  std::unique_lock reading(readMutex_, std::defer_lock);
  std::shared_ptr<const ApplicationEntries> known;
  {
    std::lock_guard lock(mutex_);
    known = entries_;
    if (known && std::chrono::steady_clock::now() < nextCheck_) return known;
  }
  if (known) {
    if (!reading.try_lock()) return known;
  } else {
    reading.lock();
    std::lock_guard lock(mutex_);
    if (entries_) return entries_;  // another thread has read the entries meanwhile
  }
  if (!known || known->changed()) known = EntryReader(folders_).read();
  std::lock_guard lock(mutex_);
  entries_ = known;
  nextCheck_ = std::chrono::steady_clock::now() + interval_;
  return known;
}

std::optional<std::string> ApplicationIndex::applicationOf(const Executable& executable) {
  auto known = entries();
  if (auto it = known->byFile.find({executable.device, executable.inode}); it != known->byFile.end()) return it->second;
  if (auto it = known->byPath.find(executable.path); it != known->byPath.end()) return it->second;
  auto it = known->byFolder.find(parent_folder(executable.path));
  return it == known->byFolder.end() ? std::nullopt : std::optional(it->second);
}

bool ApplicationIndex::hasApplication(std::string_view application) {
  return entries()->applications.count(application) > 0;
}

}  // namespace orvane
