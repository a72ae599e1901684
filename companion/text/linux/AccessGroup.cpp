#include "companion/text/AccessGroup.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace orvane {

GroupFacts look_at_group() {
  GroupFacts facts;
  const passwd* user = ::getpwuid(::geteuid());
  facts.user = user != nullptr ? user->pw_name : std::to_string(::geteuid());
  const gid_t primary = user != nullptr ? user->pw_gid : ::getegid();
  const group* members = ::getgrnam(kAccessGroup);
  if (members == nullptr) return facts;
  facts.exists = true;
  facts.listed = members->gr_gid == primary;
  for (char** member = members->gr_mem; *member != nullptr; ++member) facts.listed |= facts.user == *member;
  std::vector<gid_t> groups(static_cast<size_t>(std::max(::getgroups(0, nullptr), 0)));
  const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
  groups.resize(static_cast<size_t>(std::max(count, 0)));
  facts.inForce =
      ::getegid() == members->gr_gid || std::find(groups.begin(), groups.end(), members->gr_gid) != groups.end();
  return facts;
}

std::string access_advice(const GroupFacts& group) {
  if (group.listed && !group.inForce)
    return std::string("you joined the group ") + kAccessGroup +
           " after this login: log out and in again, or for this shell only: newgrp " + kAccessGroup;
  if (group.inForce) return "check the rights of the file and its folder";
  return std::string("join the group ") + kAccessGroup + ": sudo usermod -aG " + kAccessGroup + " " + group.user +
         ", then log out and in again";
}

}  // namespace orvane
