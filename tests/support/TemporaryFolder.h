#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

namespace orvane {

// An empty folder, removed at the end of the scope.
class TemporaryFolder {
 public:
  TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "orvane test XXXXXX") {
    path_ = mkdtemp(path_.string().data());
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& path() const { return path_; }

  // Creates a file and its parent folders. Returns its path.
  std::filesystem::path write(const std::filesystem::path& name, std::string_view content) const {
    create_directories((path_ / name).parent_path());
    std::ofstream(path_ / name, std::ios::binary) << content;
    return path_ / name;
  }
  std::string read(const std::filesystem::path& name) const {
    std::ifstream file(path_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::filesystem::path path_;
};

}  // namespace orvane
