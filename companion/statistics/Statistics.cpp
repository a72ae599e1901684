#include "companion/statistics/Statistics.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "companion/client/ExtensionBundle.h"
#include "companion/statistics/DropSums.h"
#include "companion/statistics/Plot.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

using Json = nlohmann::json;
using Sums = std::vector<DropSums::Sum>;

constexpr size_t kShownHosts = 20;

struct Span {
  Moment since, until;
};

Span span_of(const StatisticsOptions& options, Moment now) {
  const Span span{read_past(options.since, now),
                  options.until ? read_past(*options.until, now) : now + std::chrono::seconds(1)};
  if (span.since < span.until) return span;
  throw InputError("no time is between " + in_quotes(options.since) + " and " +
                   (options.until ? in_quotes(*options.until) : "now") + ": give an earlier time with --since");
}

enum class Recording { On, Off, Unknown };

Recording recording_of(const std::string& bundle) {
  if (extension_setting(bundle, "NEProviderClasses").isNil()) return Recording::Unknown;
  return extension_setting(bundle, "OrvaneRecordDrops") == Value::borrowed("yes") ? Recording::On : Recording::Off;
}

// A host or a browser, safe for a terminal: any program can be named like a browser, and any page can name a host.
std::string shown(const std::string& name, bool isHost) {
  if (name.empty()) return "(unknown)";
  const bool isPlain = std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c <= '~'; });
  if (!isPlain) return in_quotes(name);
  return isHost ? shown_hostname(name) : name;
}

std::string date_text(Moment moment, const char* format) {
  const std::time_t time = moment.time_since_epoch().count();
  std::tm fields{};
  localtime_r(&time, &fields);
  char text[64];
  return {text, std::strftime(text, sizeof text, format, &fields)};
}

void print_table(const Sums& sums, std::string_view heading, size_t most, Moment now) {
  std::vector<std::string> times;
  size_t widest = std::string_view("last").size();
  for (size_t i = 0; i < std::min(most, sums.size()); ++i) {
    times.push_back(local_text(std::chrono::floor<std::chrono::minutes>(sums[i].last), now));
    widest = std::max(widest, times.back().size());
  }
  const int width = static_cast<int>(widest);
  std::printf("\n%9s  %-*s  %s\n", "blocked", width, "last", std::string(heading).c_str());
  for (size_t i = 0; i < times.size(); ++i)
    std::printf("%9llu  %-*s  %s\n", static_cast<unsigned long long>(sums[i].count), width, times[i].c_str(),
                shown(sums[i].name, heading == "host").c_str());
  if (sums.size() > most)
    std::printf("%11s%s\n", "",
                coloured("and " + std::to_string(sums.size() - most) + " more: see --all", Colour::Faint).c_str());
}

void print_plot(const DropSums& sums, Moment until) {
  std::vector<std::pair<std::string, uint64_t>> bars;
  const char* format = sums.barsAreDays(until) ? "%a %Y-%m-%d" : "%a %H:%M";
  for (const DropSums::Bar& bar : sums.bars(until)) bars.emplace_back(date_text(bar.start, format), bar.count);
  std::puts("");
  for (const std::string& line : plot(bars, terminal_width(), plot_style_of_locale())) std::puts(line.c_str());
}

// How to switch the recording on.
std::string advice(const std::string& bundle) {
  return "To switch the recording on, set the key OrvaneRecordDrops in " + settings_file(bundle) +
         " to yes, as orvane-se(8) describes, and run sudo systemctl restart orvane-se. Then the journal gets the "
         "host and the browser of dropped connections, without address and user.";
}

// Why there are no entries in the span.
// `last`: the last entry before the span. `hasUntil`: whether the span ends before now.
std::string reason(Recording recording, const std::string& bundle, std::optional<Moment> last, bool hasUntil,
                   Moment now) {
  std::string text;
  if (last)
    text = "The last connection before that was recorded at " + local_text(*last, now) + ": give an earlier --since.";
  else if (hasUntil)
    text = "No connection was recorded before that either: leave out --until to see later ones.";
  if (recording == Recording::On && text.empty())
    return "Blocked connections are recorded, but none is in the journal: no browser tried to open a blocked site, or "
           "the extension has not been restarted since the key OrvaneRecordDrops was set.";
  if (recording == Recording::On) return text;
  if (!text.empty()) text += ' ';
  if (recording == Recording::Off) return text + "Blocked connections are not recorded. " + advice(bundle);
  return text + "Whether blocked connections are recorded is not known, because the settings cannot be read: " +
         settings_file(bundle) + ". Install the package, or see orvanectl doctor.";
}

// "00:00 to 21:00", "Sat 2026-11-21 00:00 to today 00:00".
std::string span_text(const Span& span, bool hasUntil, Moment now) {
  std::string since = local_text(span.since, now);
  if (!hasUntil) return since;
  const auto day = [](Moment moment) { return date_text(moment, "%F"); };
  const bool needsDay = day(span.until) == day(now) && day(span.since) != day(now);
  return since + (needsDay ? " to today " : " to ") + local_text(span.until, now);
}

Json json_of(const Sums& sums, const char* member) {
  Json array = Json::array();
  for (const DropSums::Sum& sum : sums)
    array.push_back({{member, sum.name}, {"count", sum.count}, {"last", time_text(sum.last)}});
  return array;
}

void print_as_json(const Span& span, const DropSums& sums, Recording recording) {
  Json bars = Json::array();
  for (const DropSums::Bar& bar : sums.bars(span.until))
    bars.push_back({{"start", time_text(bar.start)}, {"count", bar.count}});
  print_json({{"since", time_text(span.since)},
              {"until", time_text(span.until)},
              {"recording", recording == Recording::Unknown ? Json() : Json(recording == Recording::On)},
              {"count", sums.count()},
              {"leftOut", sums.leftOut()},
              {"hosts", json_of(sums.hosts(), "host")},
              {"browsers", json_of(sums.browsers(), "browser")},
              {sums.barsAreDays(span.until) ? "days" : "hours", bars}});
}

}  // namespace

int show_statistics(const StatisticsOptions& options, const DropJournal& journal, const std::string& bundle,
                    Moment now) {
  const Span span = span_of(options, now);
  const Recording recording = recording_of(bundle);
  DropSums sums;
  try {
    journal.read(span.since, span.until, [&](const DropEntry& entry) { sums.add(entry); });
  } catch (const FileError&) {
    // The right to read the journal alone does not help this user.
    if (recording == Recording::Off) print_error("blocked connections are not recorded. " + advice(bundle));
    throw;
  }
  if (options.json) {
    print_as_json(span, sums, recording);
    return kDone;
  }
  const std::string times = span_text(span, options.until.has_value(), now);
  if (sums.count() == 0 && sums.leftOut() == 0) {
    std::printf("No blocked connection was recorded from %s%s.\n", times.c_str(), options.until ? "" : " until now");
    std::puts(reason(recording, bundle, journal.lastBefore(span.since), options.until.has_value(), now).c_str());
    return kDone;
  }
  const Sums hosts = sums.hosts();
  std::printf("Blocked %s %s: %s to %s\n", options.until ? "from" : "since", times.c_str(),
              counted(sums.count(), "connection", "connections").c_str(),
              counted(hosts.size(), "host", "hosts").c_str());
  print_table(hosts, "host", options.all ? hosts.size() : kShownHosts, now);
  print_table(sums.browsers(), "browser", sums.browsers().size(), now);
  if (options.plot) print_plot(sums, span.until);
  if (sums.leftOut() > 0)
    std::printf("\n%s left out above: too many were blocked at once, or the journal was full.\n",
                counted(sums.leftOut(), "more connection is", "more connections are").c_str());
  if (recording == Recording::Off) std::printf("\nThe recording is off now. %s\n", advice(bundle).c_str());
  return kDone;
}

}  // namespace orvane
