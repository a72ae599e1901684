#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace orvane {

// Prints "orvanectl: TEXT" on standard error, made printable. The text says what failed, on what, and what to do.
void print_error(const std::string& text);

// If the given text is a URL or a host with a port, prints that the port is ignored: a list contains hosts, not ports.
void note_ignored_port(std::string_view given);

// For a command whose output is JSON: call collect_errors() before the command and, if the command has failed,
// print_errors_as_json() after it. This prints {"error": TEXT} with the last text that print_error() has printed since;
// "details" has the texts before it, if there are any. Prints nothing if the command itself has printed JSON.
void collect_errors();
void print_errors_as_json();

// Prints JSON on standard output: indented on a terminal, otherwise on one line. Invalid UTF-8 in strings is replaced.
void print_json(const nlohmann::json& value);

// "1 line", "3 lines".
std::string counted(uint64_t count, const char* one, const char* many);

enum class Colour { Good, Warning, Bad, Faint };

// The text in a colour if standard output is a terminal with colours and NO_COLOR is not set (no-color.org); otherwise
// unchanged.
std::string coloured(const std::string& text, Colour colour);

}  // namespace orvane
