#include "companion/statistics/Plot.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cstring>

namespace orvane {
namespace {

// `eighths`: the length of the bar, in eighths of a column. A bar of ASCII characters is rounded up to whole columns.
std::string bar_of(uint64_t eighths, PlotStyle style) {
  constexpr std::array kEighths = {"", "\u258f", "\u258e", "\u258d", "\u258c", "\u258b", "\u258a", "\u2589"};
  if (style == PlotStyle::ASCII) return std::string((eighths + 7) / 8, '#');
  std::string bar;
  for (uint64_t i = 0; i < eighths / 8; ++i) bar += "\u2588";
  return bar + kEighths.at(eighths % 8);
}

}  // namespace

PlotStyle plot_style_of_locale() {
  const locale_t locale = ::newlocale(LC_CTYPE_MASK, "", nullptr);
  if (locale == nullptr) return PlotStyle::ASCII;
  const bool isUTF8 = std::strcmp(::nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
  ::freelocale(locale);
  return isUTF8 ? PlotStyle::Blocks : PlotStyle::ASCII;
}

int terminal_width() {
  constexpr int kUsual = 80;
  winsize size{};
  return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsual;
}

std::vector<std::string> plot(const std::vector<std::pair<std::string, uint64_t>>& bars, int width, PlotStyle style) {
  constexpr int kShortest = 10;
  size_t labels = 0;
  uint64_t most = 1;
  for (const auto& [label, value] : bars) {
    labels = std::max(labels, label.size());
    most = std::max(most, value);
  }
  const int texts = static_cast<int>(labels + std::to_string(most).size()) + 3;  // with the spaces between
  const double longest = 8.0 * std::max(kShortest, width - texts);
  std::vector<std::string> lines;
  for (const auto& [label, value] : bars) {
    const auto eighths = static_cast<uint64_t>(longest * static_cast<double>(value) / static_cast<double>(most));
    lines.push_back(label + std::string(labels - label.size(), ' ') + "  ");
    if (value > 0) lines.back() += bar_of(std::max<uint64_t>(eighths, 1), style) + ' ' + std::to_string(value);
  }
  return lines;
}

}  // namespace orvane
