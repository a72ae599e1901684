#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/linux/base/Descriptor.h"

namespace orvane {

// Tells when something has happened to files that come, go, and are replaced: inotify(7) on the folder of each, or, as
// long as that is not there, on the nearest one above it that is. Not told: a folder further up that is renamed, and
// the file behind a symbolic link; so whoever must not miss a thing looks by himself now and then, after arm().
class PathWatch {
 public:
  // Absolute paths.
  explicit PathWatch(std::vector<std::string> paths);

  // For poll(2): readable when there may be something to read; -1 where the system has no inotify left to give.
  int descriptor() const { return inotify_.get(); }

  // Reads what has happened so far. True when it was about one of the files or their folders; the watch is then armed
  // anew. Each write to a file counts.
  bool happened();

  // Watches the folders that bear these names now.
  void arm();

 private:
  void armOne(const std::string& path);
  int watchFolder(const std::filesystem::path& child, uint32_t events);

  std::vector<std::string> paths_;
  Descriptor inotify_;
  std::unordered_map<int, std::vector<std::string>> watched_;  // by watch: the names in that folder that matter
};

}  // namespace orvane
