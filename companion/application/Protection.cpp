#include "companion/application/Protection.h"

namespace orvane {

std::string message(std::string text) {
  const std::string program = "orvanectl: ";
  while (text.ends_with('\n')) text.pop_back();
  size_t line = 0;
  do {
    if (text.compare(line, program.size(), program) == 0) text.erase(line, program.size());
    line = text.find('\n', line) + 1;  // npos + 1 is 0
  } while (line != 0);
  return text;
}

ProtectionState state_of(const Protection& protection) {
  // The order of these lines is that of the causes: while the filter is off, no extension runs that could answer.
  if (!protection.isSwitchedOn) return ProtectionState::SwitchedOff;
  if (!protection.exitCode) return ProtectionState::Unknown;
  if (protection.exitCode != 0) return ProtectionState::NoAnswer;
  if (message(protection.output) == "0") return ProtectionState::NoList;
  if (!protection.list) return ProtectionState::Unknown;
  return protection.list->isInForce ? ProtectionState::On : ProtectionState::NotInForce;
}

std::string window_text(const Protection& protection, Moment now) {
  switch (state_of(protection)) {
    case ProtectionState::Unknown:
      return "Switched on. Asking the extension...";
    case ProtectionState::SwitchedOff:
      return protection.isSetUp ? "Off: nothing is blocked. Press Switch On."
                                : "Off, and not set up yet: nothing is blocked. Press Switch On.";
    case ProtectionState::NoAnswer:
      return "Not on: the filter is switched on, but the extension does not answer. Press Activate. If that does not "
             "help, restart the Mac. (" +
             message(protection.error) + ")";
    case ProtectionState::NoList:
      return "Not on: the extension runs, but has no list, so nothing is blocked. Switch the list on.";
    case ProtectionState::NotInForce:
      return "Not on: the extension has a list, but the current list is not in force. The row List says more.";
    case ProtectionState::On:
      break;
  }
  return protection.list->suspendedNames == 0 ? "On" : list_text(*protection.list, now);
}

std::string menu_title(ProtectionState state) {
  switch (state) {
    case ProtectionState::Unknown:
      return "OrvaneSE: asking the extension...";
    case ProtectionState::SwitchedOff:
      return "OrvaneSE is off";
    case ProtectionState::NoAnswer:
      return "OrvaneSE is not on: no answer";
    case ProtectionState::NoList:
      return "OrvaneSE is not on: no list";
    case ProtectionState::NotInForce:
      return "OrvaneSE is not on: the list is not in force";
    case ProtectionState::On:
      break;
  }
  return "OrvaneSE is on";
}

}  // namespace orvane
