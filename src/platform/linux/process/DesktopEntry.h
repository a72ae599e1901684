#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// The value of a key in a group of a key file (Desktop Entry Specification, "Basic format of the file"), as it is
// written there. The first one of several; nothing when there is none.
std::optional<std::string_view> key_file_value(std::string_view text, std::string_view group, std::string_view key);

// The programs that a desktop entry names, as written: a path, or a name that is looked for in the usual folders. The
// one that it starts and the one whose presence it tests (TryExec) may differ, as when a shell starts the program. None
// for what is no application's entry, and for a hidden one, which stands for the absence of the application.
std::vector<std::string> programs_of_desktop_entry(std::string_view text);

// Whether a program of this file name runs other programs, or programs written for it (interpreters, shells,
// launchers): its name then says nothing about which application runs. Versions do not count: "python3.11".
bool runs_other_programs(std::string_view fileName);

}  // namespace orvane
