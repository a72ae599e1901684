#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace orvane {

// Prints "orvanectl: TEXT" on standard error. The text says what failed, on what, and what to do.
void print_error(const std::string& text);

// Prints JSON on standard output: indented on a terminal, otherwise on one line. Invalid UTF-8 in strings is replaced.
void print_json(const nlohmann::json& value);

// "1 line", "3 lines".
std::string counted(uint64_t count, const char* one, const char* many);

enum class Colour { Good, Warning, Bad, Faint };

// The text in a colour if standard output is a terminal with colours and NO_COLOR is not set (no-color.org); otherwise
// unchanged.
std::string coloured(const std::string& text, Colour colour);

}  // namespace orvane
