#pragma once

#include <cstdint>
#include <string>

// The parts of a TLS ClientHello (RFC 8446, section 4.1.2).
namespace orvane::tls {

inline std::string number(uint64_t value, int bytes) {
  std::string text;
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) text += static_cast<char>(value >> shift);
  return text;
}

inline std::string with_length(const std::string& text, int bytes) { return number(text.size(), bytes) + text; }

inline std::string extension(uint64_t type, const std::string& body) { return number(type, 2) + with_length(body, 2); }

inline std::string server_name(const std::string& name) {
  return extension(0, with_length('\0' + with_length(name, 2), 2));
}

inline std::string client_hello(const std::string& extensions) {
  const std::string body = std::string(34, 'v') + with_length("session", 1) + with_length("suites", 2) +
                           with_length(std::string(1, '\0'), 1) + with_length(extensions, 2);
  return '\x01' + with_length(body, 3);
}

// A ClientHello in TLS records with at most `record` bytes of it each.
inline std::string hello(const std::string& extensions, size_t record = 16384) {
  const std::string message = client_hello(extensions);
  std::string records;
  for (size_t at = 0; at < message.size(); at += record) {
    records += "\x16\x03\x01" + with_length(message.substr(at, record), 2);
  }
  return records;
}

}  // namespace orvane::tls
