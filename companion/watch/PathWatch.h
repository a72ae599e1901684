#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/files/Descriptor.h"

namespace orvane {

// Reports changes of files that may be missing, or be replaced by a rename. A path that ends in "/*ENDING" stands for
// all files in its folder whose names have this ending and do not begin with a dot.
//
// Uses inotify(7) to watch the folder of each file or, if this folder does not exist, the nearest existing folder above
// it. Also watches the folders above, but only for their own removal and rename. Two changes are not reported: a file
// system that is mounted over one of these folders, and a change of what a symbolic link in the path leads to.
class PathWatch {
 public:
  // `paths`: absolute.
  explicit PathWatch(std::vector<std::string> paths);

  // A descriptor for poll(2), readable when readEvents() should be called. -1 if the system's limit of inotify
  // instances is reached.
  int descriptor() const { return inotify_.get(); }

  // Reads all pending events. Returns true, and calls arm(), if an event concerned one of the files (each write is an
  // event) or a watched folder itself, or if the kernel has discarded events.
  bool readEvents();

  // Looks up the folders of the paths again. Watches the folders that exist now, and stops watching all other folders.
  void arm();

 private:
  void armOne(const std::string& path);
  int watchFolder(const std::filesystem::path& child, uint32_t events);

  std::vector<std::string> paths_;
  Descriptor inotify_;
  std::unordered_map<int, std::vector<std::string>> watched_;  // watch descriptor -> names to watch in its folder
};

}  // namespace orvane
