#pragma once

#include <string>

namespace orvane {

// Levels as syslog(3) numbers them.
enum class LogLevel { Error = 3, Warning = 4, Notice = 5, Info = 6 };

// One line on standard error, with its level in front where that leads to the journal (sd-daemon(3)).
void keeper_log(LogLevel level, const std::string& text);

}  // namespace orvane
