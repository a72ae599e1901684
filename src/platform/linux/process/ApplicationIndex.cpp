#include "platform/linux/process/ApplicationIndex.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>
#include <unordered_map>

#include "platform/linux/base/Files.h"
#include "platform/linux/process/DesktopEntry.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSuffix = ".desktop";
constexpr size_t kEntryLimit = size_t{1024} * 1024;  // an entry with a hundred translations has 60 KiB
constexpr int kDepthLimit = 8;                       // folders in folders, so that a link to a parent ends

// A folder's state at the time of reading; all zero for one that does not exist.
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
std::string file_name(std::string_view path) { return std::string(path.substr(path.rfind('/') + 1)); }

std::string join(std::string folder, const std::string& name) {
  folder += '/';
  return folder += name;
}

// The path with all links resolved. Empty when there is nothing there.
std::string resolve(const std::string& path) {
  std::unique_ptr<char, void (*)(void*)> resolved(::realpath(path.c_str(), nullptr), std::free);
  return resolved ? resolved.get() : "";
}

// Which of two entries that name one program stands for it.
bool preferred(const std::string& program, const std::string& left, const std::string& right) {
  std::string name = file_name(program);
  if ((left == name) != (right == name)) return left == name;
  if (left.size() != right.size()) return left.size() < right.size();
  return left < right;
}

}  // namespace

// What one reading of the folders found. Made by one thread, then never changed.
struct ApplicationEntries {
  std::map<std::string, FolderState> folders;  // what was looked at
  bool settled = true;                         // false when a change could still hide behind an equal time

  std::unordered_map<FileKey, std::string, FileKey::Hash> byFile;
  std::unordered_map<std::string, std::string> byPath;
  std::unordered_map<std::string, std::string> byFolder;
  std::set<std::string, std::less<>> applications;

  bool changed() const {
    return !settled || std::any_of(folders.begin(), folders.end(), [](const auto& folder) {
      return !(FolderState::of(folder.first) == folder.second);
    });
  }
};

namespace {

// A program that entries name.
struct NamedProgram {
  FileKey file;
  std::set<std::string> names;  // file names that it is known by: its own, and that of a link to it
  std::string application;      // the preferred entry's ID
};

// Reads the folders, step by step.
class Reader {
 public:
  explicit Reader(const ApplicationFolders& folders) : folders_(folders) {}

  std::shared_ptr<const ApplicationEntries> read() {
    timespec start{};
    ::clock_gettime(CLOCK_REALTIME, &start);
    for (const auto& list : {folders_.programs, folders_.libraries}) {
      for (const std::string& folder : list) {
        watch(folder);
        shared_.insert(resolve(folder));
      }
    }
    for (const std::string& folder : folders_.entries) findEntries(folder, "", 0);
    for (const auto& [id, path] : entries_) readEntry(id, path);
    for (const auto& [path, program] : programs_) {
      result_->byFile[program.file] = program.application;
      result_->byPath[path] = program.application;
      result_->applications.insert(program.application);
    }
    claimFolders();
    // Times of files go in steps, of two seconds at the worst: what changed that shortly ago may change again unseen.
    for (const auto& [path, state] : result_->folders) {
      if (std::abs(state.modified.tv_sec - start.tv_sec) <= 2) result_->settled = false;
    }
    return std::move(result_);
  }

 private:
  // Before the folder is read: a change during the reading must show.
  void watch(const std::string& folder) { result_->folders.try_emplace(folder, FolderState::of(folder)); }

  void findEntries(const std::string& folder, const std::string& prefix, int depth) {
    watch(folder);
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
    std::string path = find(written);
    std::string resolved = resolve(path);
    struct stat status;
    if (::stat(resolved.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
      // Perhaps not unpacked yet.
      if (!path.empty()) watch(parent_folder(path));
      return;
    }
    path = std::move(resolved);
    if (runs_other_programs(file_name(path))) return;
    NamedProgram& program = programs_[path];
    if (program.application.empty() || preferred(path, id, program.application)) program.application = id;
    program.file = {status.st_dev, status.st_ino};
    program.names.insert({file_name(path), file_name(written)});
  }

  // Empty for a name that stands in no folder of programs, and for a path that is not absolute.
  std::string find(const std::string& written) const {
    if (written.starts_with('/')) return written;
    if (written.find('/') != std::string::npos) return {};
    for (const std::string& folder : folders_.programs) {
      std::string path = join(folder, written);
      if (::access(path.c_str(), X_OK) == 0) return path;
    }
    return {};
  }

  void claimFolders() {
    // The applications whose programs stand in a folder; then those that have it by their name alone.
    std::map<std::string, std::set<std::string>> holders, namesakes;
    for (const auto& [path, program] : programs_) {
      std::string folder = parent_folder(path);
      if (shared_.count(folder) == 0) {
        holders[folder].insert(program.application);
        continue;
      }
      for (const std::string& library : folders_.libraries) {
        for (const std::string& name : program.names) {
          std::string own = resolve(join(library, name));
          if (!own.empty()) namesakes[own].insert(program.application);
        }
      }
    }
    holders.merge(namesakes);  // which leaves out folders that have holders
    for (const auto& [folder, applications] : holders) {
      if (applications.size() == 1 && shared_.count(folder) == 0) result_->byFolder[folder] = *applications.begin();
    }
  }

  const ApplicationFolders& folders_;
  std::set<std::string> shared_{""};  // folders of many applications, links resolved; "" is the root
  std::shared_ptr<ApplicationEntries> result_ = std::make_shared<ApplicationEntries>();
  std::map<std::string, std::string> entries_;  // path by ID
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
  // Debian's folders for one kind of processor, as in /usr/lib/x86_64-linux-gnu.
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
  std::unique_lock reading(reading_, std::defer_lock);
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
    if (entries_) return entries_;  // another thread was first
  }
  if (!known || known->changed()) known = Reader(folders_).read();
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

bool ApplicationIndex::knows(std::string_view application) { return entries()->applications.count(application) > 0; }

}  // namespace orvane
