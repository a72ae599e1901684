#include <netinet/in.h>

#include "database/Database.h"
#include "filter/FilterDataProvider.h"
#include "platform/linux/netfilter/QueuedFlows.h"
#include "support/VerdictCases.h"

namespace orvane {
namespace {

// One process owns all sockets.
struct OneOwner final : FlowOwners {
  int32_t process = 0;
  uint64_t cookie = 0;
  std::optional<SocketFacts> find(const SocketPair&) override { return SocketFacts{cookie, 2, 3}; }
  std::optional<SocketFacts> sender(const SocketPair& pair, uid_t) override { return find(pair); }
  bool isOpen(const SocketPair&, uint64_t other) override { return other == cookie; }
  Value ownerOf(const SocketPair&, const SocketFacts&) override { return stand_in::token_of(process); }
  void abort(const SocketPair&, uint64_t) override {}
};

class VerdictCasesTest : public DatabaseTest {};

TEST_F(VerdictCasesTest, HoldForThePacketsOfAConnection) {
  OneOwner owners;
  QueuedFlows flows(FilterDataProvider::init(), owners);
  for (const VerdictCase& each : verdict_cases()) {
    set_up(each);
    owners.process = each.program;
    for (const size_t length : kPieceLengths) {
      ++owners.cookie;
      PacketVerdict verdict = PacketVerdict::Open;
      uint32_t sequence = 0;
      for (const std::string& piece : pieces_of(each.bytes, length)) {
        const uint8_t here[4] = {127, 0, 0, 1};
        Packet packet;
        packet.ends = {IPPROTO_TCP, SocketAddress::v4(here, 4000), SocketAddress::v4(here, each.port)};
        packet.sequence = sequence;
        packet.payload = {reinterpret_cast<const uint8_t*>(piece.data()), piece.size()};
        verdict = flows.judge(packet, QueuedFlows::Clock::now());
        if (verdict != PacketVerdict::Open) break;
        sequence += static_cast<uint32_t>(piece.size());
      }
      EXPECT_EQ(verdict, each.drops ? PacketVerdict::Dropped : PacketVerdict::Allowed) << each.name << ", " << length;
    }
  }
}

}  // namespace
}  // namespace orvane
