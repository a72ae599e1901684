#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// The system's part of PathWatch, which describes these functions: inotify(7) on Linux, kqueue(2) on macOS.
class PathEvents {
 public:
  // Watches nothing before the first call of arm().
  static std::unique_ptr<PathEvents> create(std::vector<std::string> paths);
  virtual ~PathEvents() = default;

  virtual int descriptor() const = 0;
  virtual std::string fault() const = 0;
  virtual bool read() = 0;
  virtual void arm() = 0;

 protected:
  // Whether a file's name matches the last part of a path, as PathWatch's constructor takes it.
  static bool isWatched(std::string_view name, std::string_view watched) {
    if (!watched.starts_with('*')) return name == watched;
    return name.ends_with(watched.substr(1)) && !name.starts_with('.');
  }
};

}  // namespace orvane
