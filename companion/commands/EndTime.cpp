#include "companion/commands/EndTime.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <vector>

#include "companion/text/Input.h"

namespace orvane {
namespace {

// Prints the readings with numbers on standard error, and reads a number from standard input. Nothing for any other
// answer.
std::optional<Moment> ask(const std::string& text, const std::vector<Moment>& readings, Moment now) {
  std::fprintf(stderr, "%s can mean:\n", in_quotes(text).c_str());
  for (size_t i = 0; i < readings.size(); ++i)
    std::fprintf(stderr, "  %zu  %s\n", i + 1, suspension_text(readings[i], now).c_str());
  std::fprintf(stderr, "Which one? [1-%zu] ", readings.size());
  std::string answer;
  std::getline(std::cin, answer);
  if (std::cin.eof()) std::fputc('\n', stderr);  // the terminal has not shown a line end
  for (size_t i = 0; i < readings.size(); ++i) {
    if (answer == std::to_string(i + 1)) return readings[i];
  }
  return std::nullopt;
}

std::string listed(const std::vector<Moment>& readings, Moment now) {
  std::string text;
  for (const Moment reading : readings) text += (text.empty() ? "\"" : " or \"") + local_text(reading, now) + '"';
  return text;
}

}  // namespace

void EndTime::declare(CLI::App& command) {
  CLI::Option* durationOption =
      command.add_option("--for", duration, "How long, as in 30m, 1h30m, 2d")->type_name("DURATION");
  command
      .add_option("--until", until,
                  "Until when: 18:00, 6pm, \"tomorrow 9:00\", \"friday 17:00\", \"2026-12-24 18:00\", "
                  "2030-01-31T18:00:00+01:00")
      ->type_name("TIME")
      ->excludes(durationOption);
}

Moment read_end_time(const EndTime& end, const CommonOptions& options, Moment now) {
  if (end.duration) return read_end(*end.duration, now);
  const std::vector<Moment> readings = read_until(*end.until, now);
  if (readings.size() == 1) return readings.front();
  const bool canAsk = !options.json && isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
  const std::optional<Moment> chosen = canAsk ? ask(*end.until, readings, now) : std::nullopt;
  if (!chosen) throw InputError("several meanings: " + in_quotes(*end.until) + ": write " + listed(readings, now));
  return *chosen;
}

}  // namespace orvane
