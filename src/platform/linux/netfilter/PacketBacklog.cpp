#include "platform/linux/netfilter/PacketBacklog.h"

#include <algorithm>

namespace orvane {

bool PacketBacklog::add(const QueuedPacket& packet, Clock::time_point now) {
  const size_t size = packet.bytes.size();
  User& user = users_[packet.user];
  if (user.packets.size() >= kPacketsOfUser || user.bytes + size > kBytesOfUser || bytes_ + size > kBytes) return false;
  // A user who had no packets for some time gets no extra time later.
  if (user.packets.empty()) user.used = std::max(user.used, level_);
  Packet& added = user.packets.emplace_back(Packet{packet, {packet.bytes.begin(), packet.bytes.end()}, now});
  added.queued.bytes = added.bytes;
  user.bytes += size;
  bytes_ += size;
  ++waiting_;
  return true;
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
  Packet packet = std::move(last_->packets.front());
  last_->packets.pop_front();
  last_->bytes -= packet.bytes.size();
  bytes_ -= packet.bytes.size();
  --waiting_;
  return packet;
}

void PacketBacklog::charge(Clock::duration time) {
  if (last_ != nullptr) last_->used += time;
}

void PacketBacklog::clear() {
  users_.clear();
  last_ = nullptr;
  waiting_ = bytes_ = 0;
}

}  // namespace orvane
