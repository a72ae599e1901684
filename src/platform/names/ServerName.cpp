#include "platform/names/ServerName.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace orvane {
namespace {

constexpr uint8_t kHandshakeRecord = 22;  // RFC 8446, section 5.1; no HTTP method begins with this byte

// The names that services with Encrypted Client Hello use in the part of the hello that is not encrypted. Sources: the
// page "ECH Protocol" in Cloudflare's documentation; the DNS records (type HTTPS) of two sites for trying the protocol,
// tls-ech.dev and defo.ie.
constexpr std::array<std::string_view, 3> kPublicNames = {"cloudflare-ech.com", "public.tls-ech.dev", "cover.defo.ie"};

// `state` is a reader's new state. If it is Known, `written` is the name as the client wrote it, and the function sets
// `name` to the listed form of `written`. Returns `state`, or Unknown if the listed form is empty.
NameState settle(NameState state, const std::string& written, std::string& name) {
  if (state != NameState::Known) return state;
  name = listed_form(written);
  return name.empty() ? NameState::Unknown : NameState::Known;
}

}  // namespace

ServerNameReader::State ServerNameReader::read(std::span<const uint8_t> bytes) {
  if (state_ != State::Open || bytes.empty()) return state_;
  if (std::holds_alternative<std::monostate>(reader_)) {
    if (bytes.front() == kHandshakeRecord) {
      reader_.emplace<ClientHelloReader>();
    } else {
      reader_.emplace<RequestHostReader>();
    }
  }
  if (auto* hello = std::get_if<ClientHelloReader>(&reader_)) {
    state_ = settle(hello->read(bytes), hello->name(), name_);
  } else if (auto* request = std::get_if<RequestHostReader>(&reader_)) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    state_ = settle(request->read(text), request->name(), name_);
  }
  return state_;
}

ServerNameReader::State ServerNameReader::readHandshake(std::span<const uint8_t> bytes) {
  if (state_ != State::Open || bytes.empty()) return state_;
  if (std::holds_alternative<std::monostate>(reader_)) reader_.emplace<ClientHelloReader>();
  if (auto* hello = std::get_if<ClientHelloReader>(&reader_)) {
    state_ = settle(hello->readHandshake(bytes), hello->name(), name_);
  }
  return state_;
}

bool ServerNameReader::isNameHidden() const {
  const auto* hello = std::get_if<ClientHelloReader>(&reader_);
  return hello != nullptr && hello->mayHaveEncryptedHello() &&
         std::find(kPublicNames.begin(), kPublicNames.end(), name_) != kPublicNames.end();
}

}  // namespace orvane
