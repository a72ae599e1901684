#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace orvane {

enum class PlotStyle {
  Blocks,  // Unicode's block elements, which show eighths of a column
  ASCII,
};

// Blocks if the locale of the environment uses UTF-8.
PlotStyle plot_style_of_locale();

// The width of the terminal at standard output, in columns; 80 if it is not a terminal.
int terminal_width();

// A horizontal bar for each label and value, on a line of its own: the label, the bar, the value. The longest line has
// `width` columns, or more if its bar would have less than 10. Labels are ASCII. A value other than 0 has a bar,
// however small it is.
std::vector<std::string> plot(const std::vector<std::pair<std::string, uint64_t>>& bars, int width, PlotStyle style);

}  // namespace orvane
