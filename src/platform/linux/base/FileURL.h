#pragma once

#include <optional>
#include <string>

namespace orvane {

// The path that a file URL (RFC 8089) names, percent-encoding removed: "file:///a%20b" is "/a b". The host may be empty
// or "localhost". Nothing for any other URL, and for a path that is not absolute or holds a NUL.
std::optional<std::string> path_of_file_url(const std::string& url);

// The file URL of an absolute path.
std::string file_url_of_path(const std::string& path);

}  // namespace orvane
