#include "companion/text/Output.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "companion/text/Hostname.h"
#include "companion/text/Input.h"

namespace orvane {
namespace {

// What has been printed since collect_errors().
struct Printed {
  std::vector<std::string> errors;  // the first ones and the last one
  bool hasJson = false;
};
std::optional<Printed> printed;  // nothing before collect_errors()
constexpr size_t kMostErrors = 1000;

bool is_set(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool shows_colours() {
  const char* terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && !is_set("NO_COLOR") && terminal != nullptr &&
         std::string_view(terminal) != "dumb";
}

const char* sequence_of(Colour colour) {
  switch (colour) {
    case Colour::Good:
      return "\x1b[32m";
    case Colour::Warning:
      return "\x1b[33m";
    case Colour::Bad:
      return "\x1b[31m";
    case Colour::Faint:
      break;
  }
  return "\x1b[2m";
}

}  // namespace

void print_error(const std::string& text) {
  std::fprintf(stderr, "orvanectl: %s\n", printable(text, true).c_str());
  if (!printed) return;
  if (printed->errors.size() < kMostErrors) printed->errors.emplace_back();
  printed->errors.back() = text;
}

void note_ignored_port(std::string_view given) {
  if (const std::string_view port = port_in(given); !port.empty())
    print_error("the port " + in_quotes(port) + " is ignored: " + in_quotes(given) +
                ": a host is blocked on the ports 80 and 443, and on no others");
}

void collect_errors() { printed.emplace(); }

void print_errors_as_json() {
  auto [errors, hasJson] = std::exchange(printed, std::nullopt).value_or(Printed());
  if (hasJson || errors.empty()) return;
  nlohmann::json object{{"error", errors.back()}};
  errors.pop_back();
  if (!errors.empty()) object["details"] = errors;
  print_json(object);
}

void print_json(const nlohmann::json& value) {
  if (printed) printed->hasJson = true;
  const int indent = isatty(STDOUT_FILENO) == 1 ? 2 : -1;
  std::puts(value.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

std::string counted(uint64_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string coloured(const std::string& text, Colour colour) {
  static const bool shown = shows_colours();
  return shown ? sequence_of(colour) + text + "\x1b[0m" : text;
}

}  // namespace orvane
