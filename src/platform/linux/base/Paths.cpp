#include "platform/linux/base/Paths.h"

#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace orvane {

// If the path has no slash, rfind() returns npos, and npos + 1 is 0.
std::string_view file_name(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::string resolve_links(const std::string& path) {
  std::error_code error;
  return std::filesystem::canonical(path, error).string();
}

std::string find_program(const std::string& program, std::span<const std::string> folders) {
  if (program.starts_with('/')) return program;
  if (program.empty() || program.find('/') != std::string::npos) return {};
  for (const std::string& folder : folders) {
    std::string path = folder;
    path.append("/").append(program);
    if (::access(path.c_str(), X_OK) == 0) return path;
  }
  return {};
}

}  // namespace orvane
