#include "platform/names/HostName.h"

namespace orvane {

std::string listed_form(std::string name) {
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  if (name.ends_with('.')) name.pop_back();
  return name;
}

}  // namespace orvane
