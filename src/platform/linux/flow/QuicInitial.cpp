#include "platform/linux/flow/QuicInitial.h"

#include <algorithm>

namespace orvane {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint8_t kLongHeader = 0x80, kFixedBit = 0x40;  // RFC 9000, section 17.2
constexpr size_t kConnectionIDLimit = 20;
enum FrameType : uint8_t { Padding = 0, Ping = 1, Ack = 2, AckWithECN = 3, Crypto = 6, ConnectionClose = 0x1c };

// Takes fields from the front of `rest`. After a field that is cut off, isComplete is false, and all later fields are
// empty or 0.
struct Fields {
  Bytes rest;
  bool isComplete = true;

  Bytes bytes(uint64_t length) {
    isComplete = isComplete && length <= rest.size();
    if (!isComplete) return {};
    const Bytes taken = rest.first(static_cast<size_t>(length));
    rest = rest.subspan(taken.size());
    return taken;
  }

  uint64_t number(size_t length) {
    uint64_t value = 0;
    for (uint8_t byte : bytes(length)) value = value << 8 | byte;
    return value;
  }

  // RFC 9000, section 16: the two highest bits of the first byte give the length of the number.
  uint64_t variable() {
    const size_t length = rest.empty() ? 1 : size_t{1} << (rest.front() >> 6);
    const uint64_t value = number(length);
    return value & ~(uint64_t{0b11} << (8 * length - 2));
  }

  void skipVariable(uint64_t count) {
    for (uint64_t i = 0; i < count && isComplete; ++i) variable();
  }
};

void skip_acknowledgment(Fields& fields, bool hasCounts) {
  fields.skipVariable(2);  // the largest packet number, the delay
  const uint64_t ranges = fields.variable();
  fields.skipVariable(1);
  for (uint64_t i = 0; i < ranges && fields.isComplete; ++i) fields.skipVariable(2);
  if (hasCounts) fields.skipVariable(3);
}

}  // namespace

// A long header (RFC 9000, section 17.2). A client's packets have long headers until the handshake ends.
struct QuicInitialReader::Header {
  enum class Type { Initial, ZeroRTT, Handshake, UnknownVersion };

  Type type;
  QuicVersion version{};
  Bytes destination;        // the destination connection ID
  size_t numberOffset = 0;  // where the packet number begins
  size_t length = 0;        // of the whole packet; a datagram may have several packets
};

// Parses the header of the first packet in `bytes` (RFC 9000, section 17.2). Returns nothing for a packet with a short
// header, for another protocol, and for a header that is malformed or that clients do not send.
std::optional<QuicInitialReader::Header> QuicInitialReader::parseHeader(Bytes bytes) {
  using Type = Header::Type;
  Fields fields{bytes};
  const auto first = static_cast<uint8_t>(fields.number(1));
  if ((first & kLongHeader) == 0) return std::nullopt;
  Header header{Type::UnknownVersion, QuicVersion(fields.number(4)), {}, 0, bytes.size()};
  if (!fields.isComplete) return std::nullopt;
  const bool isSecond = header.version == QuicVersion::V2;
  if (!isSecond && header.version != QuicVersion::V1) {
    // Other protocols may set the highest bit, too. Unlike QUIC, most of them clear the second bit (RFC 9443).
    if ((first & kFixedBit) == 0) return std::nullopt;
    return header;
  }
  // Version 2 numbers the packet types in another way (RFC 9369, section 3.2). After the subtraction, 3 is a Retry in
  // both versions. Only servers send a Retry.
  const unsigned type = ((first >> 4U) - (isSecond ? 1U : 0U)) & 0b11U;
  if (type == 3) return std::nullopt;
  header.type = static_cast<Type>(type);

  const uint64_t destinationLength = fields.number(1);
  header.destination = fields.bytes(destinationLength);
  const uint64_t sourceLength = fields.number(1);
  fields.bytes(sourceLength);
  if (destinationLength > kConnectionIDLimit || sourceLength > kConnectionIDLimit) return std::nullopt;
  if (header.type == Type::Initial) fields.bytes(fields.variable());  // the token
  const uint64_t length = fields.variable();
  header.numberOffset = bytes.size() - fields.rest.size();
  header.length = header.numberOffset + fields.bytes(length).size();
  if (!fields.isComplete) return std::nullopt;
  return header;
}

QuicInitialReader::State QuicInitialReader::read(Bytes datagram) {
  isReadable_ = false;
  if (state_ != State::Open) return state_;
  bool hasOther = false, mayPrecedeHello = false;
  NewKeys newKeys;
  while (!datagram.empty() && state_ == State::Open) {
    if (datagram.front() == 0) {  // a client may fill a datagram up with zeros, which are no packet
      datagram = datagram.subspan(1);
      continue;
    }
    const auto header = parseHeader(datagram);
    const Bytes packet = datagram.first(header ? header->length : datagram.size());
    datagram = datagram.subspan(packet.size());
    const auto frames = header && header->type == Header::Type::Initial ? open(*header, packet, newKeys) : std::nullopt;
    if (frames && readFrames(*frames)) continue;
    hasOther = true;
    const bool isUnknownVersion = header && header->type == Header::Type::UnknownVersion;
    isHelloUnreadable_ = isHelloUnreadable_ || (isUnknownVersion && !keys_);
    mayPrecedeHello = mayPrecedeHello || isUnknownVersion || (header && header->type == Header::Type::ZeroRTT);
  }
  isReadable_ = !hasOther;
  if (state_ == State::Open && !keys_ && !mayPrecedeHello) state_ = State::Unknown;
  return state_;
}

bool QuicInitialReader::beginsOtherConnection(Bytes datagram, Bytes known) {
  const auto header = parseHeader(datagram);
  if (!header || header->type != Header::Type::Initial || std::ranges::equal(header->destination, known)) return false;
  NewKeys newKeys;
  return QuicInitialReader().open(*header, datagram.first(header->length), newKeys).has_value();
}

// Decrypts an Initial packet. In later packets of a connection, the connection ID is the server's choice, and the keys
// do not come from this ID. So the function first tries the keys that opened an earlier packet. Deriving keys takes
// long, so new keys are derived only once for each datagram. Once is enough, because all packets of a datagram must
// have the same connection ID (RFC 9000, section 12.2).
std::optional<std::vector<uint8_t>> QuicInitialReader::open(const Header& header, Bytes packet, NewKeys& newKeys) {
  if (keys_) {
    if (auto frames = keys_->open(packet, header.numberOffset)) return frames;
  }
  if (!newKeys.destination) newKeys = {header.destination, QuicKeys::derive(header.version, header.destination)};
  if (!newKeys.keys || !std::ranges::equal(*newKeys.destination, header.destination)) return std::nullopt;
  auto frames = newKeys.keys->open(packet, header.numberOffset);
  if (frames) {
    keys_ = newKeys.keys;
    connectionID_.assign(header.destination.begin(), header.destination.end());
    handshake_ = FirstFlight(0);
    hello_ = ServerNameReader();
  }
  return frames;
}

// Reads the frames of an Initial packet, and in them the next bytes of the hello. Returns false if a frame is
// malformed, if its type is not allowed in Initial packets (RFC 9000, section 12.4), or if its bytes are beyond a
// limit.
bool QuicInitialReader::readFrames(Bytes frames) {
  Fields fields{frames};
  bool isWhole = true;
  while (fields.isComplete && !fields.rest.empty() && state_ == State::Open) {
    const auto type = static_cast<uint8_t>(fields.number(1));
    switch (type) {
      case Padding:
      case Ping:
        break;
      case Ack:
      case AckWithECN:
        skip_acknowledgment(fields, type == AckWithECN);
        break;
      case Crypto: {
        const uint64_t offset = fields.variable();
        const Bytes bytes = fields.bytes(fields.variable());
        if (!fields.isComplete) break;
        const bool isAdded = offset + bytes.size() <= kLimit &&
                             handshake_.add(static_cast<uint32_t>(offset), bytes) == FirstFlight::Added::Yes;
        if (isAdded) state_ = hello_.readHandshake(handshake_.next());
        isWhole = isWhole && isAdded;
        isHelloUnreadable_ = isHelloUnreadable_ || !isAdded;
        break;
      }
      case ConnectionClose:
        fields.skipVariable(2);  // the error, the type of the frame that caused it
        fields.bytes(fields.variable());
        break;
      default:
        return false;
    }
  }
  return fields.isComplete && isWhole;
}

}  // namespace orvane
