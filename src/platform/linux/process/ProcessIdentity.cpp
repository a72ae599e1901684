#include "platform/linux/process/ProcessIdentity.h"

#include <mntent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>
#include <vector>

#include "platform/linux/base/Paths.h"
#include "platform/linux/process/DesktopEntry.h"

namespace orvane {
namespace {

constexpr size_t kIdentifierLimit = 255;  // the longest D-Bus name; a Flatpak application's ID is a D-Bus name
constexpr int kAncestorLimit = 64;        // no ordinary process tree is deeper
constexpr size_t kCacheLimit = 64;        // each cached process keeps a file descriptor open

using Clock = std::chrono::steady_clock;

// How long facts are cached. Without the counts of events, or after an incomplete search, a change may stay unnoticed
// for the shorter time.
constexpr std::chrono::milliseconds kCacheTime = std::chrono::seconds(10), kShortCacheTime{500};

// The limits of the search for the oldest process of a unit, in processor time.
constexpr std::chrono::milliseconds kSearchTime{8}, kSearchTimeOfUser{50};
constexpr size_t kCreditsLimit = 1024;

// Makes room for one more entry in a full cache: removes the expired entries, or all entries if none has expired. `end`
// returns the time when an entry expires.
template <class Cache, class End>
void make_room(Cache& cache, Clock::time_point now, End end) {
  if (cache.size() < kCacheLimit) return;
  std::erase_if(cache, [&](const auto& each) { return end(each.second) < now; });
  if (cache.size() >= kCacheLimit) cache.clear();
}

bool is_identifier(std::string_view text) {
  return !text.empty() && text.size() <= kIdentifierLimit && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
  });
}

std::optional<std::string> snap_name(std::string_view instance) {
  std::string_view name = instance.substr(0, instance.find('_'));
  if (!is_identifier(name)) return std::nullopt;
  return std::string(name);
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (true) {
    size_t end = text.find(separator);
    parts.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return parts;
    text.remove_prefix(end + 1);
  }
}

// The paths in the lines "hierarchy:controllers:path" of /proc/pid/cgroup.
std::vector<std::string_view> control_group_paths(std::string_view controlGroups) {
  std::vector<std::string_view> paths;
  for (std::string_view line : split(controlGroups, '\n')) {
    size_t first = line.find(':');
    size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);
    if (second != std::string_view::npos) paths.push_back(line.substr(second + 1));
  }
  return paths;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Reverts systemd-escape(1).
std::string unescape_unit(std::string_view text) {
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    int high = -1, low = -1;
    if (text.substr(i, 2) == "\\x" && i + 3 < text.size()) {
      high = hex_digit(text[i + 2]);
      low = hex_digit(text[i + 3]);
    }
    if (high < 0 || low < 0) {
      result += text[i];
    } else {
      result += static_cast<char>(high * 16 + low);
      i += 3;
    }
  }
  return result;
}

// The application's ID in a unit's name of the form app[-LAUNCHER]-ID-RANDOM.scope or
// app[-LAUNCHER]-ID[@RANDOM].service. Empty for other names.
std::string application_of_unit(std::string_view unit) {
  constexpr std::string_view kScope = ".scope", kService = ".service";
  std::vector<std::string_view> parts;
  if (unit.ends_with(kScope)) {
    parts = split(unit.substr(0, unit.size() - kScope.size()), '-');
    if (parts.size() > 2) parts.pop_back();
  } else if (unit.ends_with(kService)) {
    parts = split(unit.substr(0, unit.size() - kService.size()), '-');
    parts.back() = parts.back().substr(0, parts.back().find('@'));
  }
  if (parts.size() < 2 || parts.size() > 3 || parts.front() != "app") return {};
  return unescape_unit(parts.back());
}

// The mount point of the AppImage that contains the path. Empty if the path is in no AppImage.
std::string_view app_image_mount(std::string_view path) {
  size_t start = path.find("/.mount_");
  size_t end = start == std::string_view::npos ? start : path.find('/', start + 1);
  return end == std::string_view::npos ? std::string_view() : path.substr(0, end);
}

char to_lower(char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Whether a part of an AppImage's file name comes after the application's name, and so does not belong to it: a version
// ("120", "v2"), a processor, or "appimage".
bool follows_name(std::string_view part) {
  if (part.starts_with('v')) part.remove_prefix(1);
  if (!part.empty() && is_digit(part.front())) return true;
  return part == "x86" || part == "amd64" || part == "aarch64" || part == "arm64" || part == "appimage";
}

// The application's name in an AppImage's file name, which must be in lower case: everything before the first part for
// which follows_name() is true.
std::string_view name_of_app_image(std::string_view file) {
  for (size_t end = file.find_first_of("-_. "); end != std::string_view::npos;
       end = file.find_first_of("-_. ", end + 1)) {
    std::string_view rest = file.substr(end + 1);
    if (follows_name(rest.substr(0, rest.find_first_of("-_. ")))) return file.substr(0, end);
  }
  return file;
}

}  // namespace

std::optional<std::string> application_of_app_image(std::string_view path, std::string_view mounts) {
  std::string_view point = app_image_mount(path);
  if (point.empty()) return std::nullopt;
  std::unique_ptr<FILE, int (*)(FILE*)> lines(::fmemopen(const_cast<char*>(mounts.data()), mounts.size(), "r"),
                                              ::fclose);
  mntent mount;
  std::array<char, 4096> text;
  while (lines && ::getmntent_r(lines.get(), &mount, text.data(), text.size()) != nullptr) {
    if (mount.mnt_dir != point) continue;
    std::string file(file_name(mount.mnt_fsname));
    std::transform(file.begin(), file.end(), file.begin(), to_lower);
    std::string_view name = name_of_app_image(file);
    if (is_identifier(name)) return std::string(name);
  }
  return std::nullopt;
}

std::optional<std::string> flatpak_application(std::string_view information) {
  auto name = key_file_value(information, "Application", "name");
  if (!name || !is_identifier(*name)) return std::nullopt;
  return std::string(*name);
}

std::optional<std::string> snap_of_path(std::string_view path) {
  for (std::string_view folder : {"/snap/", "/var/lib/snapd/snap/"}) {
    if (!path.starts_with(folder)) continue;
    std::string_view rest = path.substr(folder.size());
    size_t end = rest.find('/');
    if (end != std::string_view::npos && rest.substr(0, end) != "bin") return snap_name(rest.substr(0, end));
  }
  return std::nullopt;
}

std::optional<std::string> snap_of_control_groups(std::string_view controlGroups) {
  for (std::string_view path : control_group_paths(controlGroups)) {
    for (std::string_view unit : split(path, '/')) {
      std::vector<std::string_view> parts = split(unit, '.');
      if (parts.size() > 2 && parts[0] == "snap") return snap_name(unescape_unit(parts[1]));
    }
  }
  return std::nullopt;
}

std::optional<ApplicationUnit> unit_of_control_groups(std::string_view controlGroups) {
  for (std::string_view path : control_group_paths(controlGroups)) {
    // The unit need not be the last component, because an application may make control groups inside its unit. So the
    // loop tries every prefix of the path, the longest first.
    for (size_t end = path.size(); end != std::string_view::npos && end > 0; end = path.rfind('/', end - 1)) {
      std::string_view unit = path.substr(0, end);
      std::string application = application_of_unit(file_name(unit));
      if (!application.empty()) return ApplicationUnit{std::string(unit), std::move(application)};
    }
  }
  return std::nullopt;
}

ProcessIdentity& ProcessIdentity::system() {
  static auto* identity = new ProcessIdentity(ApplicationFolders::system());
  return *identity;
}

ProcessIdentity::Program ProcessIdentity::programOf(const ProcessInformation& process) {
  const auto flatpak = process.flatpakInformation();
  Program program{process.executable(), flatpak_application(flatpak.value_or("")), {}, {}, flatpak.has_value()};
  const bool isInAppImage = program.executable && !app_image_mount(program.executable->path).empty();
  if (!program.package && program.executable) {
    const std::string& path = program.executable->path;
    program.package = snap_of_path(path);
    if (isInAppImage && runs_other_programs(file_name(path))) {
      program.image = application_of_app_image(path, process.mounts());
    }
  }
  // The control group names the snap from which the process was started. The process may still run a program of the
  // system: for example, a browser that was started in the terminal window of an editor, when the editor is a snap. The
  // calling process sees the files of the system, but not those in the snap's own /usr. So the control group counts
  // only if the executable is not visible here.
  if (!program.package && !isInAppImage) {
    auto snap = snap_of_control_groups(process.controlGroups());
    if (snap && !(program.executable && is_visible_here(*program.executable))) program.package = std::move(snap);
  }
  program.application = program.package;
  if (!program.application && program.executable) program.application = index_.applicationOf(*program.executable);
  return program;
}

std::optional<std::string> ProcessIdentity::identifierOf(const Program& program) {
  if (program.application) return program.application;
  if (program.image) return program.image;
  if (!program.executable) return std::nullopt;
  const std::string_view name = file_name(program.executable->path);
  return name.empty() ? std::nullopt : std::optional<std::string>(name);
}

std::shared_ptr<const ProcessIdentity::Process> ProcessIdentity::find(pid_t pid) {
  if (auto cached = findCached(pid)) return cached;
  const auto now = Clock::now();
  const auto version = changes_.version(pid);
  auto information = ProcessInformation::open(pid, processTable_);
  if (!information) return nullptr;
  Program program = programOf(*information);
  const auto end = now + (version && program.isCertain ? kCacheTime : kShortCacheTime);
  auto process = std::make_shared<const Process>(Process{std::move(*information), std::move(program), version, end});
  // If events are not counted, a cached process can be checked only if its executable is known.
  if (version ? process->information.isEnding() : !process->program.executable) return process;
  std::lock_guard lock(mutex_);
  make_room(processes_, now, [](const auto& each) { return each->end; });
  processes_.insert_or_assign(pid, process);
  return process;
}

std::shared_ptr<const ProcessIdentity::Process> ProcessIdentity::findCached(pid_t pid) {
  std::shared_ptr<const Process> process;
  {
    std::lock_guard lock(mutex_);
    auto it = processes_.find(pid);
    if (it == processes_.end()) return nullptr;
    process = it->second;
    if (process->end < Clock::now()) return nullptr;
  }
  const bool isCurrent = process->version ? changes_.version(pid) == process->version
                                          : process->information.runs(&*process->program.executable);
  return isCurrent ? process : nullptr;
}

pid_t ProcessIdentity::responsibleFor(pid_t pid) {
  if (auto known = findAnswer(pid)) return *known;
  Answer answer = makeAnswer(pid);
  const pid_t responsible = answer.responsible;
  if (answer.canBeCached) {
    std::lock_guard lock(mutex_);
    make_room(answers_, Clock::now(), [](const Answer& each) { return each.end; });
    answers_.insert_or_assign(pid, std::move(answer));
  }
  return responsible;
}

std::optional<pid_t> ProcessIdentity::findAnswer(pid_t pid) {
  std::lock_guard lock(mutex_);
  auto it = answers_.find(pid);
  if (it == answers_.end()) return std::nullopt;
  const Answer& answer = it->second;
  const bool isCurrent = Clock::now() <= answer.end &&
                         std::all_of(answer.versions.begin(), answer.versions.end(),
                                     [this](const auto& each) { return changes_.version(each.first) == each.second; });
  return isCurrent ? std::optional(answer.responsible) : std::nullopt;
}

ProcessIdentity::Answer ProcessIdentity::makeAnswer(pid_t pid) {
  Answer answer;
  auto process = findFor(answer, pid);
  if (process == nullptr) return answer;
  answer.responsible = pid;
  if (process->program.application) return answer;
  auto unit = unit_of_control_groups(process->information.controlGroups());
  if (auto ancestor = applicationAbove(answer, process, unit)) {
    answer.responsible = *ancestor;
    return answer;
  }
  // Most units are not named after an application. For such a unit, the process table is not searched.
  if (!unit || !index_.hasApplication(unit->application)) return answer;
  const auto oldest = applicationOfUnit(*unit, process->information);
  if (oldest && findFor(answer, *oldest)) {
    answer.responsible = *oldest;
  } else {
    answer.end = std::min(answer.end, Clock::now() + kShortCacheTime);
  }
  return answer;
}

std::shared_ptr<const ProcessIdentity::Process> ProcessIdentity::findFor(Answer& answer, pid_t pid) {
  auto process = find(pid);
  answer.canBeCached = answer.canBeCached && process != nullptr && process->version && !process->information.isEnding();
  if (!answer.canBeCached) return process;
  answer.versions.emplace_back(pid, *process->version);
  answer.end = std::min(answer.end, process->end);
  return process;
}

std::shared_ptr<const ProcessIdentity::Process> ProcessIdentity::parentOf(Answer& answer, const Process& process) {
  const auto find = [&](const ProcessInformation& child) {
    auto parent = child.parent() != 0 ? findFor(answer, child.parent()) : nullptr;
    // If the parent is younger than its child, the real parent has ended and its pid was used again.
    return parent && parent->information.startTime() <= child.startTime() ? parent : nullptr;
  };
  if (auto parent = find(process.information)) return parent;
  // The parent may have ended since the process was cached. The kernel has then given the process another parent.
  auto current = ProcessInformation::open(process.information.pid(), processTable_);
  if (!current || current->startTime() != process.information.startTime() ||
      current->parent() == process.information.parent()) {
    return nullptr;
  }
  answer.canBeCached = false;
  {
    std::lock_guard lock(mutex_);
    processes_.erase(current->pid());
  }
  return find(*current);
}

std::optional<pid_t> ProcessIdentity::applicationAbove(Answer& answer, std::shared_ptr<const Process> process,
                                                       const std::optional<ApplicationUnit>& unit) {
  for (int depth = 0; depth < kAncestorLimit; ++depth) {
    auto parent = parentOf(answer, *process);
    if (!parent) return std::nullopt;
    if (unit) {
      auto above = unit_of_control_groups(parent->information.controlGroups());
      if (!above || above->path != unit->path) return std::nullopt;
    }
    if (parent->program.application) return parent->information.pid();
    process = std::move(parent);
  }
  return std::nullopt;
}

std::optional<pid_t> ProcessIdentity::applicationOfUnit(const ApplicationUnit& unit, const ProcessInformation& member) {
  struct stat status;
  const uid_t user = ::fstat(member.directory(), &status) == 0 ? status.st_uid : 0;
  const ThreadBudget budget(kSearchTime);
  std::lock_guard lock(searchMutex_);
  if (credits_.size() >= kCreditsLimit && credits_.count(user) == 0) credits_.clear();
  const auto now = Clock::now();
  ThreadCredit& credit = credits_.try_emplace(user, ThreadCredit(kSearchTimeOfUser, now)).first->second;
  if (credit.isSpent(now)) return std::nullopt;
  std::optional<ProcessInformation> oldest;
  each_process(processTable_, [&](pid_t pid) {
    if (budget.isSpent()) return false;
    auto process = ProcessInformation::open(pid, processTable_);
    if (!process || (oldest && oldest->startTime() <= process->startTime())) return true;
    auto unitOfProcess = unit_of_control_groups(process->controlGroups());
    if (!unitOfProcess || unitOfProcess->path != unit.path) return true;
    if (programOf(*process).application == unit.application) oldest = std::move(process);
    return true;
  });
  credit.use(budget.used());
  return oldest ? std::optional(oldest->pid()) : std::nullopt;
}

}  // namespace orvane
