#pragma once

#include <string>

namespace orvane {

// The group whose members may edit the machine's list and connect to the machine's extension.
inline constexpr const char* kAccessGroup = "orvane";

// Advice for a user who gets EACCES or EPERM because the user is not in this group.
inline std::string access_advice(const std::string& user = "USER") {
  return std::string("join the group ") + kAccessGroup + ": sudo usermod -aG " + kAccessGroup + " " + user +
         ", then log out and in again";
}

}  // namespace orvane
