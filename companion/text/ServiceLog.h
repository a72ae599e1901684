#pragma once

#include <string>

namespace orvane {

// The levels, with the numbers of syslog(3).
enum class LogLevel { Error = 3, Warning = 4, Notice = 5, Info = 6 };

// Prints one line on standard error, made printable: with the level in front if standard error is the journal
// (sd-daemon(3)), otherwise with the program's name.
void service_log(const char* program, LogLevel level, const std::string& text);

}  // namespace orvane
