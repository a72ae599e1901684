#include "platform/linux/process/DesktopEntry.h"

#include "platform/linux/base/Paths.h"
#include "platform/linux/base/Text.h"

namespace orvane {
namespace {

constexpr std::string_view kGroup = "Desktop Entry";

// Removes the first line from the text and returns it.
std::string_view take_line(std::string_view& text) {
  size_t end = text.find('\n');
  std::string_view line = text.substr(0, end);
  text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  return line;
}

// Replaces the escapes that the Desktop Entry Specification defines for every value of type string: \s, \n, \t, \r and
// \\.
std::string unescape(std::string_view value) {
  constexpr std::string_view kEscapes = "sntr\\", kCharacters = " \n\t\r\\";
  std::string result;
  for (size_t i = 0; i < value.size(); ++i) {
    // Other escapes stay as they are; split_command_line() reads those in Exec.
    const size_t found =
        value[i] == '\\' && i + 1 < value.size() ? kEscapes.find(value[i + 1]) : std::string_view::npos;
    result += found == std::string_view::npos ? value[i] : kCharacters[found];
    if (found != std::string_view::npos) ++i;
  }
  return result;
}

// Splits the value of the key Exec into words. Blanks separate words except inside double quotes, where a backslash
// quotes the next character. Field codes such as %U are not replaced.
std::vector<std::string> split_command_line(std::string_view line) {
  std::vector<std::string> words;
  bool inWord = false;
  bool quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (!quoted && (c == ' ' || c == '\t' || c == '\n')) {
      inWord = false;
      continue;
    }
    if (!inWord) words.emplace_back();
    inWord = true;
    if (c == '"') {
      quoted = !quoted;
    } else if (quoted && c == '\\' && i + 1 < line.size()) {
      words.back() += line[++i];
    } else {
      words.back() += c;
    }
  }
  return words;
}

// The program that a command line starts. If the line begins with env(1), the program is the first word after env's
// options and assignments. Empty if the line names no program, or names the program inside an option of env.
std::string program_of_command_line(std::string_view line) {
  std::vector<std::string> words = split_command_line(line);
  auto word = words.begin();
  if (word == words.end()) return {};
  if (file_name(*word) != "env") return *word;
  for (++word; word != words.end(); ++word) {
    if (*word == "-u" || *word == "-C" || *word == "--unset" || *word == "--chdir") {
      if (++word == words.end()) return {};
    } else if (word->starts_with("-S") || word->starts_with("--split-string")) {
      return {};  // the program is inside the argument
    } else if (!word->starts_with('-') && word->find('=') == std::string::npos) {
      return *word;
    }
  }
  return {};
}

}  // namespace

std::optional<std::string_view> key_file_value(std::string_view text, std::string_view group, std::string_view key) {
  bool inGroup = false;
  while (!text.empty()) {
    std::string_view line = trim(take_line(text));
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      inGroup = line.size() == group.size() + 2 && line.back() == ']' && line.substr(1, group.size()) == group;
      continue;
    }
    size_t equals = line.find('=');
    if (inGroup && equals != std::string_view::npos && trim(line.substr(0, equals)) == key) {
      return trim(line.substr(equals + 1));
    }
  }
  return std::nullopt;
}

std::vector<std::string> programs_of_desktop_entry(std::string_view text) {
  if (key_file_value(text, kGroup, "Type") != "Application" || key_file_value(text, kGroup, "Hidden") == "true") {
    return {};
  }
  std::vector<std::string> programs;
  auto add = [&programs](std::string program) {
    if (!program.empty()) programs.push_back(std::move(program));
  };
  if (auto command = key_file_value(text, kGroup, "Exec")) add(program_of_command_line(unescape(*command)));
  if (auto tried = key_file_value(text, kGroup, "TryExec")) add(unescape(*tried));
  return programs;
}

bool runs_other_programs(std::string_view fileName) {
  // A space stands before and after each name, so that the search below finds whole names only.
  static constexpr std::string_view kNames =
      " AppRun awk bash busybox bwrap csh dash dbus-launch dbus-run-session dotnet electron env expect firejail fish "
      "flatpak gawk gdb gio gjs gjs-console guile ionice java javaw kioclient ksh ld-linux-aarch64.so "
      "ld-linux-x86-64.so ld-musl-aarch64.so ld-musl-x86_64.so lua luajit mksh mono mono-sgen "
      "nice node nodejs nohup perl php pkexec prime-run pypy python qtchooser ruby runuser setsid sh snap stdbuf "
      "sudo systemd-run tclsh tcsh time timeout toybox wine wine-preloader wine64-preloader wish xdg-open zsh ";
  size_t end = fileName.find_last_not_of("0123456789.-");
  std::string_view name = fileName.substr(0, end == std::string_view::npos ? 0 : end + 1);
  if (name.empty() || name.find(' ') != std::string_view::npos) return false;
  return kNames.find(' ' + std::string(name) + ' ') != std::string_view::npos;
}

}  // namespace orvane
