#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace orvane {

// A version of QUIC whose Initial packets can be read: version 1 (RFC 9000) or 2 (RFC 9369).
enum class QuicVersion : uint32_t { V1 = 0x00000001, V2 = 0x6b3343cf };

// The keys that protect the Initial packets of one client (RFC 9001, section 5.2). They are derived from the
// destination connection ID of the client's first Initial packet, or, after a Retry, of its first packet after the
// Retry. Everybody who sees that packet can compute the keys: they protect against damage, not against readers.
class QuicKeys {
 public:
  // The keys that come from the connection ID `destination`. Nothing when the crypto library fails.
  static std::optional<QuicKeys> derive(QuicVersion version, std::span<const uint8_t> destination);

  // Removes the protection of one packet (RFC 9001, sections 5.4 and 5.3). `packet` is the whole packet, and its packet
  // number begins at `numberOffset`. Returns the packet's frames; nothing when other keys protect the packet, or when
  // it is damaged.
  std::optional<std::vector<uint8_t>> open(std::span<const uint8_t> packet, size_t numberOffset);

 private:
  std::array<uint8_t, 16> key_, headerKey_;
  std::array<uint8_t, 12> iv_;
  uint64_t nextNumber_ = 0;  // one more than the largest packet number that was opened
};

}  // namespace orvane
