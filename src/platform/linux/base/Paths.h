#pragma once

#include <span>
#include <string>
#include <string_view>

namespace orvane {

// The last part of a path; a text without a slash is that part itself.
std::string_view file_name(std::string_view path);

// The absolute path with all symbolic links resolved. Empty when there is no such file.
std::string resolve_links(const std::string& path);

// Finds the program that a command line names. An absolute path is returned unchanged; a name without a slash is looked
// for in the folders. Empty when no folder has an executable file of that name, and for a relative path.
std::string find_program(const std::string& program, std::span<const std::string> folders);

}  // namespace orvane
