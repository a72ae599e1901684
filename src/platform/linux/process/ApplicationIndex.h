#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/process/ProcessInformation.h"

namespace orvane {

struct ApplicationEntries;

// Where applications are installed. Folders need not exist.
struct ApplicationFolders {
  // Folders of desktop entries; an entry hides those of the same ID in later folders.
  std::vector<std::string> entries;
  // Folders of programs that an entry may name without a path.
  std::vector<std::string> programs;
  // Folders that give an application a folder of its own: LIBRARY/NAME belongs to the program NAME.
  std::vector<std::string> libraries;

  // The system's. Entries below a home directory are not among them: a program could write one, and pass for any
  // application it likes or make a browser pass for something else.
  static ApplicationFolders system();
};

// Which application a program belongs to, by the desktop entries (Desktop Entry Specification) that are installed. An
// entry identifies the program that it starts or tests for, links resolved, and the other programs in the folder that
// this program has for itself. That folder is the one it stands in, unless it is one of `programs` or `libraries` or
// also holds another application's program; for a program in such a shared folder it is LIBRARY/NAME, where
// distributions put what a wrapper script NAME starts. Entries of interpreters and launchers identify nothing.
//
// Entries with NoDisplay or Terminal count: browsers for the terminal have such, and an application that no menu shows
// is one all the same. Hidden ones stand for an application's absence.
//
// Follows installations: at most once in an interval, a look-up first compares the folders' modification times (a
// handful of stat(2) calls) and reads the entries again when one has changed. inotify(7) would save these, and would
// cost a watch on folders that do not exist yet, and a limit on instances that containers run into; a second's delay
// after an installation is not felt. What this does not see is an entry that is written to in place.
//
// Thread-safe. While one thread reads the entries, others are answered from what was read before.
class ApplicationIndex {
 public:
  explicit ApplicationIndex(ApplicationFolders folders,
                            std::chrono::milliseconds interval = std::chrono::milliseconds(1000));
  ~ApplicationIndex();

  // The ID of the application's desktop entry. When several entries name the program: the one whose ID is the program's
  // file name, else the shortest, else the first in the alphabet.
  std::optional<std::string> applicationOf(const Executable& executable);

  // Whether applicationOf() gives this ID for any program.
  bool knows(std::string_view application);

 private:
  std::shared_ptr<const ApplicationEntries> entries();

  const ApplicationFolders folders_;
  const std::chrono::milliseconds interval_;

  std::mutex reading_;  // held by the one thread that looks whether the entries have changed; taken before mutex_
  std::mutex mutex_;    // guards what follows
  std::shared_ptr<const ApplicationEntries> entries_;
  std::chrono::steady_clock::time_point nextCheck_;
};

}  // namespace orvane
