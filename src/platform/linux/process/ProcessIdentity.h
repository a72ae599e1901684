#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/linux/process/ApplicationIndex.h"
#include "platform/linux/process/ProcessInformation.h"

namespace orvane {

// The application ID in the description of a Flatpak sandbox (flatpak-metadata(5), group Application).
std::optional<std::string> flatpak_application(std::string_view information);

// The Snap name in a path below a folder of snaps, and in the control groups (/proc/pid/cgroup) of a snap's process,
// where a unit is named "snap.NAME.APP" and more. Without the key of a parallel installation ("name_key").
std::optional<std::string> snap_of_path(std::string_view path);
std::optional<std::string> snap_of_control_groups(std::string_view controlGroups);

// The unit that a desktop environment made for an application it started (systemd's "Desktop Environment Integration").
struct ApplicationUnit {
  std::string path;         // of the unit's control group
  std::string application;  // the ID of the desktop entry
};
std::optional<ApplicationUnit> unit_of_control_groups(std::string_view controlGroups);

// Who processes are, and which of them work for others. Thread-safe.
class ProcessIdentity {
 public:
  // What a process runs.
  struct Program {
    std::optional<Executable> executable;
    std::optional<std::string> package;  // the Flatpak application ID, or the Snap name
  };

  explicit ProcessIdentity(ApplicationFolders folders, std::string processTable = "/proc")
      : index_(std::move(folders)), processTable_(std::move(processTable)) {}

  // The one for this system. Never destroyed.
  static ProcessIdentity& system();

  // A running process and what it runs.
  struct Process {
    ProcessInformation information;
    Program program;
  };

  // Null when there is no such process. What was found within the last half second holds, as long as the process lives
  // and runs the same file: a program that opens many connections is not read again for each.
  std::shared_ptr<const Process> find(pid_t pid);

  // The identifier of the application that the program is by itself: its package's, or its desktop entry's.
  std::optional<std::string> applicationOf(const Program& program);

  // The same; else the executable's file name, so that a browser unpacked from an archive has an identifier too.
  // Nothing when not even that is known.
  std::optional<std::string> identifierOf(const Program& program);

  // The process that answers for this one. Itself, when it is an application by itself; else its nearest ancestor that
  // is one; else a process of the application that its unit is named after; else itself. A unit bounds the search for
  // ancestors: what a desktop, or another application, started in a unit of its own does not work for its starter.
  // -1 when there is no such process.
  pid_t responsibleFor(pid_t pid);

 private:
  struct Known {
    std::shared_ptr<const Process> process;
    std::chrono::steady_clock::time_point found;
  };

  std::shared_ptr<const Process> findKnown(pid_t pid);
  Program programOf(const ProcessInformation& process) const;
  bool isApplication(const Process& process) { return applicationOf(process.program).has_value(); }
  std::optional<pid_t> applicationAbove(const Process& process, const std::optional<ApplicationUnit>& unit);
  std::optional<pid_t> applicationOfUnit(const ApplicationUnit& unit);

  ApplicationIndex index_;
  const std::string processTable_;
  std::mutex mutex_;
  std::unordered_map<pid_t, Known> known_;  // guarded by mutex_
};

}  // namespace orvane
