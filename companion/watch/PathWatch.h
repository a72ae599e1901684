#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

class PathEvents;

// Reports changes of files that may be missing, or be replaced by a rename. A path that ends in "/*ENDING" stands for
// all files in its folder whose names have this ending and do not begin with a dot.
//
// Watches the folder of each file or, if this folder does not exist, the nearest existing folder above it. Also watches
// the folders above, but only for their own removal and rename. Two changes are not reported: a file system that is
// mounted over one of these folders, and a change of what a symbolic link in the path leads to.
class PathWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // `paths`: absolute.
  explicit PathWatch(std::vector<std::string> paths);
  ~PathWatch();
  PathWatch(const PathWatch&) = delete;
  PathWatch& operator=(const PathWatch&) = delete;

  // A descriptor for poll(2), readable when readEvents() should be called. May be -1 if there is a fault().
  int descriptor() const;

  // Why changes of some files are not reported, for people: usually a limit of the system. Empty if nothing is wrong.
  std::string fault() const;

  // If a fault has begun or ended since the last call: what to log. `files`: words for the paths, as in "all lists".
  struct News {
    bool isFault;
    std::string text;
  };
  std::optional<News> news(const std::string& files);

  // Reads the events that fit in a buffer, but not all pending events, because other processes may cause events without
  // a pause. Returns true, and calls arm(), if an event concerned one of the files (each write is an event) or a
  // watched folder itself, or if the kernel has discarded events.
  bool readEvents();

  // Looks up the folders of the paths again. Watches the folders that exist now, and stops watching all other folders.
  // If there was a fault(), tries again.
  void arm();

  // While there is a fault(): whether to look at the files now, because their changes may not be reported. Returns true
  // at most every two seconds, and calls arm() then. So after a fault has ended, the files are looked at once more.
  bool isLookDue();
  // When isLookDue() will return true, unless arm() ends the fault before.
  Clock::time_point lookAt() const { return lookAt_; }

 private:
  void scheduleLook();

  const std::unique_ptr<PathEvents> events_;
  Clock::time_point lookAt_ = Clock::time_point::max();
  bool isFaultTold_ = false;  // by news()
};

}  // namespace orvane
