#pragma once

#include <string>

namespace orvane {

// The group whose members may edit the machine's list and connect to the machine's extension.
inline constexpr const char* kAccessGroup = "orvane";

// Whether the calling process's user belongs to the group.
struct GroupFacts {
  std::string user;
  bool exists = false;
  bool listed = false;   // the group is the user's primary group, or the group database lists the user as a member
  bool inForce = false;  // the calling process has the group: processes get a user's new group only at the next login
};
GroupFacts look_at_group();

// Advice for a user who gets EACCES or EPERM.
std::string access_advice(const GroupFacts& group = look_at_group());

}  // namespace orvane
