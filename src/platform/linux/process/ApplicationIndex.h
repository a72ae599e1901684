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
  // Folders of desktop entries. An entry hides entries of the same ID in later folders.
  std::vector<std::string> entries;
  // Folders to search for a program that an entry names without a path.
  std::vector<std::string> programs;
  // Folders in which an application may have its own folder: LIBRARY/NAME belongs to the program NAME.
  std::vector<std::string> libraries;

  // The folders of this system. Home directories are left out, because any program of the user could write an entry
  // there. With such an entry the program could pass for another application, or make a browser pass for something
  // else.
  static ApplicationFolders system();
};

// Finds the application that a program belongs to, from the installed desktop entries (Desktop Entry Specification).
//
//   a program                                           belongs to the application of
//   that an entry starts (Exec) or tests (TryExec)      that entry; symbolic links are resolved
//   in the same folder as such a program                that entry, unless the folder is in `programs` or `libraries`,
//                                                       or has programs of several applications
//   in LIBRARY/NAME, if an entry starts NAME in a       that entry: NAME is usually a wrapper script that starts a
//   folder of `programs`                                program in LIBRARY/NAME
//
// An entry that starts an interpreter or a launcher identifies no program. Entries with NoDisplay or Terminal count:
// browsers for the terminal set these keys. Entries with Hidden do not count: the key means that the application is not
// installed.
//
// A look-up notices new installations: at most once in `interval`, it first compares the modification times of the
// folders (some 25 stat(2) calls), and reads all entries again if a folder has changed. It does not notice an entry
// that is rewritten in place. inotify(7) would save the stat(2) calls, but it cannot watch folders that do not exist
// yet, and containers run into its limit on instances.
//
// Thread-safe. While one thread reads the entries again, the other threads use the previous entries.
class ApplicationIndex {
 public:
  explicit ApplicationIndex(ApplicationFolders folders,
                            std::chrono::milliseconds interval = std::chrono::milliseconds(1000));
  ~ApplicationIndex();

  // The ID of the application's desktop entry. If several entries name a program, the entry whose ID is the program's
  // file name counts, else the one with the shortest ID, and among equally short IDs the first in the alphabet.
  std::optional<std::string> applicationOf(const Executable& executable);

  // Whether applicationOf() returns this ID for any program.
  bool hasApplication(std::string_view application);

 private:
  std::shared_ptr<const ApplicationEntries> entries();

  const ApplicationFolders folders_;
  const std::chrono::milliseconds interval_;

  std::mutex readMutex_;  // held by the thread that checks the folders and reads the entries; locked before mutex_
  std::mutex mutex_;      // guards the members below
  std::shared_ptr<const ApplicationEntries> entries_;
  std::chrono::steady_clock::time_point nextCheck_;
};

}  // namespace orvane
