#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// The value of a key in a group of a key file (Desktop Entry Specification, "Basic format of the file"). Escapes in the
// value are not replaced. If the key occurs more than once, the first counts. Nothing for a missing key.
std::optional<std::string_view> key_file_value(std::string_view text, std::string_view group, std::string_view key);

// The programs that a desktop entry names: the one it starts (Exec) and the one whose presence it tests (TryExec). The
// two differ, for example, when Exec starts a shell. Each is a path, or a name without a path, which find_program()
// looks for. Empty for an entry that is hidden or that describes no application.
std::vector<std::string> programs_of_desktop_entry(std::string_view text);

// Whether a program of this file name is an interpreter, a shell or a launcher, so that its name does not say which
// application runs. A version at the end is ignored: "python3.11" counts as "python".
bool runs_other_programs(std::string_view fileName);

}  // namespace orvane
