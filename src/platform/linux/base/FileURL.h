#pragma once

#include <optional>
#include <string>

namespace orvane {

// The path in a file URL (RFC 8089), with the percent-encoding decoded: "file:///a%20b" gives "/a b". The URL's host
// may be empty or "localhost". Nothing for any other URL, and for a path that is relative or contains a NUL.
std::optional<std::string> path_of_file_url(const std::string& url);

// The file URL of an absolute path.
std::string file_url_of_path(const std::string& path);

}  // namespace orvane
