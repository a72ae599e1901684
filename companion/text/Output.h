#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace orvane {

// One line on standard error, "orvanectl: TEXT". The text says what failed, on what, and what to do.
void print_error(const std::string& text);

// One JSON text on standard output: indented for a person at a terminal, on one line for a program. What is not UTF-8
// in a string is replaced.
void print_json(const nlohmann::json& value);

// "1 line", "3 lines".
std::string counted(uint64_t count, const char* one, const char* many);

enum class Colour { Good, Warning, Bad, Faint };

// The text in a colour where standard output is a terminal that has them and NO_COLOR is not set (no-color.org);
// otherwise the text as it is.
std::string coloured(const std::string& text, Colour colour);

}  // namespace orvane
