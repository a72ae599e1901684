#pragma once

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>

#include <cstdint>
#include <string>

#include "support/ClientHello.h"

namespace orvane::quic {

// A variable-length integer (RFC 9000, section 16), always encoded in 4 bytes.
inline std::string variable(uint64_t value) { return tls::number(value | 0x80000000, 4); }

// A CRYPTO frame.
inline std::string crypto(size_t offset, const std::string& bytes) {
  return '\x06' + variable(offset) + variable(bytes.size()) + bytes;
}

// A TLS ClientHello with an extension of `more` bytes before the server name.
inline std::string hello(const std::string& name, size_t more = 0) {
  return tls::client_hello(tls::extension(99, std::string(more, 'm')) + tls::server_name(name));
}

inline gnutls_datum_t datum(const std::string& text) {
  return {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())), static_cast<unsigned>(text.size())};
}

// HKDF-Expand-Label (RFC 8446, section 7.1).
inline std::string expand(const std::string& secret, const std::string& label, size_t length) {
  const std::string text = tls::number(length, 2) + tls::with_length("tls13 " + label, 1) + '\0';
  std::string output(length, '\0');
  const gnutls_datum_t key = datum(secret), info = datum(text);
  gnutls_hkdf_expand(GNUTLS_MAC_SHA256, &key, &info, output.data(), length);
  return output;
}

// Makes the long-header packets of a QUIC client (RFC 9000). Most files in corpus/quic_initial whose names do not begin
// with chromium_ or firefox_ were made with it. Derives the keys without QuicKeys, so that an error of QuicKeys shows.
struct QuicClient {
  std::string keyID = "firstdst";  // the connection ID from which the keys are derived
  uint64_t number = 0;             // the packet number of the next packet
  int numberLength = 1;            // how many bytes of the number are sent

  std::string packet(unsigned type, const std::string& frames, const std::string& destination,
                     const std::string& token = "") {
    std::string header(1, static_cast<char>(0xc0U | type << 4U | static_cast<unsigned>(numberLength - 1)));
    header += tls::number(1, 4) + tls::with_length(destination, 1) + tls::with_length("src", 1);
    if (type == 0) header += variable(token.size()) + token;
    header += variable(static_cast<size_t>(numberLength) + frames.size() + 16) + tls::number(number, numberLength);

    const std::string publicSalt("\x38\x76\x2c\xf7\xf5\x59\x34\xb3\x4d\x17\x9a\xe6\xa4\xc8\x0c\xad\xcc\xbb\x7f\x0a");
    const gnutls_datum_t salt = datum(publicSalt), input = datum(keyID);
    std::string initial(32, '\0');
    gnutls_hkdf_extract(GNUTLS_MAC_SHA256, &input, &salt, initial.data());
    const std::string secret = expand(initial, "client in", 32);
    const std::string key = expand(secret, "quic key", 16), headerKey = expand(secret, "quic hp", 16);
    std::string nonce = expand(secret, "quic iv", 12);
    const std::string whole = std::string(4, '\0') + tls::number(number++, 8);
    for (size_t i = 0; i < nonce.size(); ++i) nonce[i] = static_cast<char>(nonce[i] ^ whole[i]);

    std::string sealed(frames.size() + 16, '\0');
    size_t length = sealed.size();
    gnutls_aead_cipher_hd_t aead = nullptr;
    const gnutls_datum_t aeadKey = datum(key);
    gnutls_aead_cipher_init(&aead, GNUTLS_CIPHER_AES_128_GCM, &aeadKey);
    gnutls_aead_cipher_encrypt(aead, nonce.data(), nonce.size(), header.data(), header.size(), 16, frames.data(),
                               frames.size(), sealed.data(), &length);
    gnutls_aead_cipher_deinit(aead);

    std::string mask = sealed.substr(4 - static_cast<size_t>(numberLength), 16);
    const std::string zeros(16, '\0');
    gnutls_cipher_hd_t cipher = nullptr;
    const gnutls_datum_t maskKey = datum(headerKey), iv = datum(zeros);
    gnutls_cipher_init(&cipher, GNUTLS_CIPHER_AES_128_CBC, &maskKey, &iv);
    gnutls_cipher_encrypt(cipher, mask.data(), mask.size());
    gnutls_cipher_deinit(cipher);
    header[0] = static_cast<char>(header[0] ^ (mask[0] & 0x0f));
    for (size_t i = 0, first = header.size() - static_cast<size_t>(numberLength); first + i < header.size(); ++i) {
      header[first + i] = static_cast<char>(header[first + i] ^ mask[1 + i]);
    }
    return header + sealed;
  }

  std::string initial(const std::string& frames, const std::string& token = "") {
    return packet(0, frames + std::string(20, '\0'), keyID, token);
  }
};

}  // namespace orvane::quic
