#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/names/HostName.h"

namespace orvane {

// Reads the server name (RFC 6066, section 3) from a TLS ClientHello (RFC 8446, section 4.1.2) as its bytes arrive. The
// name is known when its extension is complete. The call that completes this extension still looks for an encrypted
// hello in the rest of its bytes, up to the end of the TLS record. Later calls read nothing. The reader stores about
// 2 KiB at most, whatever the length of the hello. Not thread-safe.
class ClientHelloReader {
 public:
  // Unknown: the bytes are no hello, or the hello is malformed, has no name or is too long.
  using State = NameState;

  // Limit on the bytes that are read, including TLS record headers. If the name is not among them, the state becomes
  // Unknown.
  static constexpr size_t kLimit = 65536;

  // Reads the next bytes of the connection; the first call gets the connection's first bytes. TLS records may split the
  // hello anywhere.
  State read(std::span<const uint8_t> bytes);

  // Does the same as read() for a hello that is not in TLS records: QUIC sends the hello in CRYPTO frames (RFC 9001,
  // section 4.1.3). kLimit does not apply here; the caller limits the number of bytes.
  State readHandshake(std::span<const uint8_t> bytes);

  // The server name as the client wrote it.
  const std::string& name() const { return name_; }

  // True if the reader has found an encrypted hello (RFC 9849, section 5). Also true if the end of the hello had not
  // arrived when the name was known, because an encrypted hello may follow. If a server offers no key for encryption,
  // many clients send random bytes in place of an encrypted hello; the reader cannot tell the two apart.
  bool mayHaveEncryptedHello() const { return hasEncryptedHello_ || !isRead_; }

 private:
  // The fields of a hello, in order. The bytes of a field are either collected (stored) or skipped.
  enum class Field {
    MessageHeader,
    VersionAndRandom,
    SessionIdLength,
    SessionId,
    CipherSuitesLength,
    CipherSuites,
    CompressionMethodsLength,
    CompressionMethods,
    ExtensionsLength,
    ExtensionHeader,
    Extension,
    ServerNames,
    EncryptedHello,
  };

  State readMessage(std::span<const uint8_t> fragment);
  State finish(Field field);
  State collect(Field field, size_t bytes);
  State skip(Field field, size_t bytes);
  State nextExtension();
  State readServerNames();

  State state_ = State::Open;
  size_t read_ = 0;  // bytes read so far, including record headers

  std::array<uint8_t, 5> recordHeader_{};
  size_t recordHeaderLength_ = 0;
  size_t fragmentLeft_ = 0;

  Field field_ = Field::MessageHeader;
  bool isCollected_ = true;
  size_t fieldLeft_ = 4;
  std::string collected_;
  size_t messageLeft_ = 0;     // bytes of the message after the current field
  size_t extensionsLeft_ = 0;  // bytes of the list of extensions after the current field
  std::string name_;
  bool hasEncryptedHello_ = false;
  bool isRead_ = false;  // whether the hello was read to its end, or as far as it is well formed
};

}  // namespace orvane
