#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/linux/base/ThreadBudget.h"
#include "platform/linux/process/ApplicationIndex.h"
#include "platform/linux/process/ProcessChanges.h"
#include "platform/linux/process/ProcessInformation.h"

namespace orvane {

// The application ID in `information`, the text of a Flatpak sandbox's /.flatpak-info (flatpak-metadata(5), group
// Application).
std::optional<std::string> flatpak_application(std::string_view information);

// The name of a snap. snap_of_path() takes it from a path such as /snap/NAME/12/usr/bin/app. snap_of_control_groups()
// takes it from the text of /proc/pid/cgroup: for a process of a snap, the text names a unit "snap.NAME.APP...". For a
// parallel installation, NAME is "name_key", and the result is the name without the key.
std::optional<std::string> snap_of_path(std::string_view path);
std::optional<std::string> snap_of_control_groups(std::string_view controlGroups);

// The name of the application in an AppImage. `path` is an executable inside the AppImage, and `mounts` the text of
// /proc/pid/mounts. An AppImage mounts itself at FOLDER/.mount_XXXXXXYYYYYY, and the mount's source is the AppImage's
// file name. The result is the part of this file name before the version, the processor or "appimage", in lower case:
// "firefox" for Firefox-120.0-x86_64.AppImage. Nothing if `path` is in no AppImage.
std::optional<std::string> application_of_app_image(std::string_view path, std::string_view mounts);

// The systemd unit that a desktop environment made for an application (systemd's "Desktop Environment Integration").
struct ApplicationUnit {
  std::string path;         // the unit's control group
  std::string application;  // the ID of the application's desktop entry, from the unit's name
};
std::optional<ApplicationUnit> unit_of_control_groups(std::string_view controlGroups);

// Finds the application of a process, and the process that is responsible for it. Thread-safe.
class ProcessIdentity {
 public:
  // The program that a process runs.
  struct Program {
    std::optional<Executable> executable;
    std::optional<std::string> package;           // the Flatpak application ID, or the Snap name
    std::optional<std::string> image;             // from application_of_app_image(), if runs_other_programs(executable)
    std::optional<std::string> application = {};  // `package`, else the ID of the executable's desktop entry
    bool isCertain = true;                        // false if something could not be read just then
  };

  explicit ProcessIdentity(ApplicationFolders folders, std::string processTable = "/proc",
                           const ProcessChanges& changes = ProcessChanges::system())
      : index_(std::move(folders)), processTable_(std::move(processTable)), changes_(changes) {}

  // The object for this machine, which the whole extension shares. Never destroyed.
  static ProcessIdentity& system();

  struct Process {
    ProcessInformation information;
    Program program;
    std::optional<ProcessChanges::Version> version = {};  // read before `information` and `program`
    std::chrono::steady_clock::time_point end = {};       // until when the object may be cached
  };

  // Null when the process does not exist. A browser opens many connections, so a result is cached, as long as the
  // process has the same version. If events are not counted (ProcessChanges), the result is cached as long as the
  // process exists and runs the same executable.
  //
  // Some facts can change without a new version or executable: the users of the process, its root folder and thereby
  // its package, its executable's path, and the desktop entry of its executable. So a result is cached for ten seconds
  // at most; for half a second if events are not counted, or if the program is not certain.
  std::shared_ptr<const Process> find(pid_t pid);

  // The program's application, else the name of its AppImage, else the executable's file name. So even a browser that
  // was unpacked from an archive has an identifier. Nothing when the executable is unknown.
  std::optional<std::string> identifierOf(const Program& program);

  // The process that is responsible for the process `pid`. It is the first in this list that exists:
  //   1. the process itself, if it is an application;
  //   2. its nearest ancestor that is an application. If the process is in an application's systemd unit, only the
  //      ancestors in this unit count: a desktop that starts a program in a new unit is not responsible for it;
  //   3. the oldest process of the unit, among those that run the application after which the unit is named;
  //   4. the process itself.
  // -1 when the process does not exist. The answer is cached for ten seconds at most, as long as the versions of all
  // processes on which it depends stay the same; for half a second if no process of the unit was found. It is not
  // cached if events are not counted.
  //
  // The search for the oldest process of a unit takes at most 8 ms of processor time. All searches for one user take at
  // most 50 ms at once, and a fifth of the time on average; beyond that, a search finds nothing.
  pid_t responsibleFor(pid_t pid);

 private:
  // The process that is responsible for another, and what this answer depends on.
  struct Answer {
    pid_t responsible = -1;
    bool canBeCached = true;
    std::vector<std::pair<pid_t, ProcessChanges::Version>> versions;
    std::chrono::steady_clock::time_point end =
        std::chrono::steady_clock::time_point::max();  // at most the earliest `end` of the processes in `versions`
  };

  std::shared_ptr<const Process> findCached(pid_t pid);
  std::optional<pid_t> findAnswer(pid_t pid);
  std::shared_ptr<const Process> findFor(Answer& answer, pid_t pid);
  Answer makeAnswer(pid_t pid);
  // Null if the parent cannot be found: it is in another PID namespace, for example.
  std::shared_ptr<const Process> parentOf(Answer& answer, const Process& process);
  Program programOf(const ProcessInformation& process);
  std::optional<pid_t> applicationAbove(Answer& answer, std::shared_ptr<const Process> process,
                                        const std::optional<ApplicationUnit>& unit);
  std::optional<pid_t> applicationOfUnit(const ApplicationUnit& unit, const ProcessInformation& member);

  ApplicationIndex index_;
  const std::string processTable_;
  const ProcessChanges& changes_;
  std::mutex mutex_;  // guards the members below
  std::unordered_map<pid_t, std::shared_ptr<const Process>> processes_;
  std::unordered_map<pid_t, Answer> answers_;

  std::mutex searchMutex_;  // guards the member below; locked by a search for the oldest process of a unit
  std::unordered_map<uid_t, ThreadCredit> credits_;
};

}  // namespace orvane
