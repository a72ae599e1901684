#include "platform/names/ClientHello.h"

#include <algorithm>

namespace orvane {
namespace {

constexpr uint8_t kHandshakeRecord = 22;             // RFC 8446, section 5.1
constexpr uint8_t kMajorVersion = 3;                 // in the records of every TLS version
constexpr uint8_t kClientHello = 1;                  // RFC 8446, section 4
constexpr size_t kServerNameExtension = 0;           // RFC 6066, section 1.1
constexpr uint8_t kHostNameType = 0;                 // RFC 6066, section 3
constexpr size_t kEncryptedHelloExtension = 0xfe0d;  // RFC 9849, section 5
constexpr uint8_t kOuterHello = 0;                   // RFC 9849, section 5
constexpr size_t kVersionAndRandomBytes = 34;
constexpr size_t kExtensionLimit = 1024;  // in bytes; enough for every host name and every encrypted hello

size_t big_endian(std::string_view bytes) {
  size_t number = 0;
  for (char byte : bytes) number = number << 8 | static_cast<uint8_t>(byte);
  return number;
}

}  // namespace

ClientHelloReader::State ClientHelloReader::read(std::span<const uint8_t> bytes) {
  while (state_ == State::Open && !bytes.empty()) {
    if (read_ == kLimit) return state_ = State::Unknown;
    if (fragmentLeft_ == 0) {
      recordHeader_[recordHeaderLength_++] = bytes.front();
      bytes = bytes.subspan(1);
      ++read_;
      if (recordHeader_[0] != kHandshakeRecord || (recordHeaderLength_ > 1 && recordHeader_[1] != kMajorVersion)) {
        return state_ = State::Unknown;
      }
      if (recordHeaderLength_ < recordHeader_.size()) continue;
      recordHeaderLength_ = 0;
      fragmentLeft_ = static_cast<size_t>(recordHeader_[3]) << 8 | recordHeader_[4];
      if (fragmentLeft_ == 0) return state_ = State::Unknown;
      continue;
    }
    auto fragment = bytes.first(std::min({bytes.size(), fragmentLeft_, kLimit - read_}));
    bytes = bytes.subspan(fragment.size());
    fragmentLeft_ -= fragment.size();
    read_ += fragment.size();
    state_ = readMessage(fragment);
  }
  return state_;
}

ClientHelloReader::State ClientHelloReader::readHandshake(std::span<const uint8_t> bytes) {
  return state_ == State::Open ? state_ = readMessage(bytes) : state_;
}

ClientHelloReader::State ClientHelloReader::readMessage(std::span<const uint8_t> fragment) {
  State state = State::Open;
  while (state == State::Open && !fragment.empty()) {
    auto part = fragment.first(std::min(fragment.size(), fieldLeft_));
    fragment = fragment.subspan(part.size());
    fieldLeft_ -= part.size();
    if (isCollected_) collected_.append(reinterpret_cast<const char*>(part.data()), part.size());
    // A field of length 0 is complete without a byte, so several fields may finish here.
    while (state == State::Open && fieldLeft_ == 0) state = finish(field_);
  }
  isRead_ = state != State::Open;
  return name_.empty() ? state : State::Known;
}

// Call this when all bytes of the field have arrived. Reads the field and starts the next one.
ClientHelloReader::State ClientHelloReader::finish(Field field) {
  switch (field) {
    case Field::MessageHeader:
      if (static_cast<uint8_t>(collected_[0]) != kClientHello) return State::Unknown;
      messageLeft_ = big_endian(std::string_view(collected_).substr(1));
      return skip(Field::VersionAndRandom, kVersionAndRandomBytes);
    case Field::VersionAndRandom:
      return collect(Field::SessionIdLength, 1);
    case Field::SessionIdLength:
      return skip(Field::SessionId, big_endian(collected_));
    case Field::SessionId:
      return collect(Field::CipherSuitesLength, 2);
    case Field::CipherSuitesLength:
      return skip(Field::CipherSuites, big_endian(collected_));
    case Field::CipherSuites:
      return collect(Field::CompressionMethodsLength, 1);
    case Field::CompressionMethodsLength:
      return skip(Field::CompressionMethods, big_endian(collected_));
    case Field::CompressionMethods:
      return collect(Field::ExtensionsLength, 2);
    case Field::ExtensionsLength:
      extensionsLeft_ = big_endian(collected_);
      if (extensionsLeft_ != messageLeft_) return State::Unknown;
      return nextExtension();
    case Field::ExtensionHeader: {
      const size_t type = big_endian(std::string_view(collected_).substr(0, 2));
      const size_t length = big_endian(std::string_view(collected_).substr(2));
      if (length > extensionsLeft_) return State::Unknown;
      extensionsLeft_ -= length;
      if (type == kServerNameExtension && name_.empty()) {
        return length > kExtensionLimit ? State::Unknown : collect(Field::ServerNames, length);
      }
      const bool isEncryptedHello = type == kEncryptedHelloExtension && length > 0 && length <= kExtensionLimit;
      return isEncryptedHello ? collect(Field::EncryptedHello, length) : skip(Field::Extension, length);
    }
    case Field::Extension:
      return nextExtension();
    case Field::ServerNames:
      return readServerNames();
    case Field::EncryptedHello:
      hasEncryptedHello_ = static_cast<uint8_t>(collected_.front()) == kOuterHello;
      return nextExtension();
  }
  return State::Unknown;
}

ClientHelloReader::State ClientHelloReader::collect(Field field, size_t bytes) {
  const State state = skip(field, bytes);
  isCollected_ = true;
  collected_.clear();
  return state;
}

// Starts a field whose bytes are not collected. Returns Unknown if the field would be longer than the rest of the
// message.
ClientHelloReader::State ClientHelloReader::skip(Field field, size_t bytes) {
  if (bytes > messageLeft_) return State::Unknown;
  messageLeft_ -= bytes;
  field_ = field;
  fieldLeft_ = bytes;
  isCollected_ = false;
  return State::Open;
}

ClientHelloReader::State ClientHelloReader::nextExtension() {
  constexpr size_t kHeader = 4;
  if (extensionsLeft_ < kHeader) return State::Unknown;  // the list has ended
  extensionsLeft_ -= kHeader;
  return collect(Field::ExtensionHeader, kHeader);
}

// Reads the first host name in a list of entries (type, length, name).
ClientHelloReader::State ClientHelloReader::readServerNames() {
  std::string_view list = collected_;
  if (list.size() < 2 || big_endian(list.substr(0, 2)) != list.size() - 2) return State::Unknown;
  list.remove_prefix(2);
  while (list.size() >= 3) {
    const size_t length = big_endian(list.substr(1, 2));
    if (length > list.size() - 3) return State::Unknown;
    const std::string_view name = list.substr(3, length);
    if (static_cast<uint8_t>(list.front()) == kHostNameType) {
      if (name.empty() || name.find('\0') != std::string_view::npos) return State::Unknown;
      name_ = name;
      return nextExtension();
    }
    list.remove_prefix(3 + length);
  }
  return State::Unknown;
}

}  // namespace orvane
