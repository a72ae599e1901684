#include "platform/linux/netfilter/PacketBacklog.h"

#include <algorithm>

namespace orvane {

void PacketBacklog::add(const QueuedPacket& packet, Clock::time_point now,
                        const std::function<void(const QueuedPacket&)>& drop) {
  User& user = find(packet.user);
  Packet& added = user.packets.emplace_back(Packet{packet, {packet.bytes.begin(), packet.bytes.end()}, now});
  added.queued.bytes = added.bytes;
  user.bytes += added.bytes.size();
  bytes_ += added.bytes.size();
  ++waiting_;
  while (user.packets.size() > kPacketsOfUser || user.bytes > kBytesOfUser) drop(takeOldest(user).queued);
  while (bytes_ > kBytes) {
    auto largest = std::max_element(users_.begin(), users_.end(),
                                    [](const auto& a, const auto& b) { return a.second.bytes < b.second.bytes; });
    drop(takeOldest(largest->second).queued);
  }
}

PacketBacklog::User& PacketBacklog::find(uid_t user) {
  User& found = users_[user];
  // A user without packets cannot save up time for later.
  if (found.packets.empty()) found.used = std::max(found.used, level_);
  return found;
}

PacketBacklog::Packet PacketBacklog::takeOldest(User& user) {
  Packet packet = std::move(user.packets.front());
  user.packets.pop_front();
  user.bytes -= packet.bytes.size();
  bytes_ -= packet.bytes.size();
  --waiting_;
  return packet;
}

std::optional<PacketBacklog::Packet> PacketBacklog::next() {
  last_ = nullptr;
  for (auto each = users_.begin(); each != users_.end();) {
    User& user = each->second;
    // A user without packets is forgotten once `level_` has reached the user's `used`: if the user returns, `used`
    // begins at `level_` in any case.
    const bool isForgotten = user.packets.empty() && user.used <= level_;
    if (!user.packets.empty() && (last_ == nullptr || user.used < last_->used)) last_ = &user;
    each = isForgotten ? users_.erase(each) : std::next(each);
  }
  if (last_ == nullptr) return std::nullopt;
  level_ = std::max(level_, last_->used);
  return takeOldest(*last_);
}

void PacketBacklog::charge(Clock::duration time) {
  if (last_ != nullptr) last_->used += time;
}

void PacketBacklog::charge(uid_t user, Clock::duration time) { find(user).used += time; }

void PacketBacklog::clear() {
  users_.clear();
  last_ = nullptr;
  waiting_ = bytes_ = 0;
}

}  // namespace orvane
