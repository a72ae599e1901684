#pragma once

#include <span>
#include <string>
#include <string_view>

namespace orvane {

// The part of a path after its last slash. The whole text if it has no slash.
std::string_view file_name(std::string_view path);

// The absolute path with all symbolic links resolved. Empty when there is no such file.
std::string resolve_links(const std::string& path);

// The path of the program that a command line names. An absolute path is returned unchanged. For a name without a
// slash, the folders are searched in order; the result is empty if no folder has an executable file of that name. The
// result is also empty for a relative path with a slash.
std::string find_program(const std::string& program, std::span<const std::string> folders);

}  // namespace orvane
