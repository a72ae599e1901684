#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/flow/FirstFlight.h"
#include "platform/linux/flow/QuicKeys.h"
#include "platform/names/ServerName.h"

namespace orvane {

// Reads the server name from the first datagrams that a QUIC client sends to one server (RFC 9000, RFC 9369). The
// client's TLS hello is in the CRYPTO frames of Initial packets. Browsers split the hello, shuffle the pieces, and send
// them in two datagrams or more. Bytes in order are read at once; only pieces after a gap are stored, up to the limits
// in FirstFlight. Not thread-safe.
//
// After a Retry or a Version Negotiation packet of the server, the client begins again with a new connection ID, and so
// with new keys; the reader then begins again, too.
class QuicInitialReader {
 public:
  // Unknown: the datagram belongs to another protocol, or to a QUIC connection whose first packets were not read; or
  // the hello is malformed or has no name.
  using State = NameState;

  // Limit on the bytes of the hello that are read. A datagram with bytes beyond it is not readable.
  static constexpr size_t kLimit = ClientHelloReader::kLimit;

  // Reads the next datagram from the client.
  State read(std::span<const uint8_t> datagram);

  State state() const { return state_; }

  // The connection ID from which the keys come: the client chose it in its first packet, or the server in a Retry.
  // Empty if no Initial packet was read.
  const std::vector<uint8_t>& connectionID() const { return connectionID_; }

  // Whether the datagram begins with the first Initial packet of another connection. `known` is the connectionID() of
  // the present connection. A packet that begins another connection has a connection ID other than `known`, and its
  // keys come from its ID. A later Initial packet of the present connection may have another ID, too, which the server
  // chose; but its keys come from `known`.
  static bool beginsOtherConnection(std::span<const uint8_t> datagram, std::span<const uint8_t> known);

  // Whether the last datagram consisted only of Initial packets that were read. Such a datagram contains no part of a
  // request. False if the datagram has other packets, such as 0-RTT packets (requests that a client may send together
  // with its hello), packets of an unknown version of QUIC, or packets that a client sends after its hello. Also false
  // if a piece of the hello was not stored, because it is beyond a limit.
  bool isReadable() const { return isReadable_; }

  // Whether it is possible that the hello will never be readable: the client began in a version of QUIC that the reader
  // does not know, or a piece of the hello was beyond a limit.
  bool isHelloUnreadable() const { return isHelloUnreadable_; }

  // The number of bytes of the hello that have arrived so far, up to the first gap.
  uint64_t length() const { return handshake_.length(); }

  // As in FirstFlight, for the pieces of the hello.
  size_t storedBytes() const { return handshake_.storedBytes(); }
  void forgetStored() { handshake_.forgetStored(); }

  // The reader of the hello. Its name() is the server name.
  const ServerNameReader& hello() const { return hello_; }

 private:
  struct Header;
  static std::optional<Header> parseHeader(std::span<const uint8_t> bytes);

  // The keys that come from the connection ID of a datagram's first Initial packet.
  struct NewKeys {
    std::optional<std::span<const uint8_t>> destination;  // nothing before the keys are derived
    std::optional<QuicKeys> keys;                         // nothing if they cannot be derived
  };

  std::optional<std::vector<uint8_t>> open(const Header& header, std::span<const uint8_t> packet, NewKeys& newKeys);
  bool readFrames(std::span<const uint8_t> frames);

  State state_ = State::Open;
  bool isReadable_ = false, isHelloUnreadable_ = false;
  std::optional<QuicKeys> keys_;  // nothing before an Initial packet was opened
  std::vector<uint8_t> connectionID_;
  FirstFlight handshake_{0};
  ServerNameReader hello_;
};

}  // namespace orvane
