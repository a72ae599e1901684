#include "platform/linux/flow/ServerName.h"

#include <string_view>

namespace orvane {
namespace {

constexpr uint8_t kHandshakeRecord = 22;  // RFC 8446, section 5.1; no HTTP method begins with it

template <class Reader, class Bytes>
NameState advance(Reader& reader, Bytes bytes, std::string& name) {
  const NameState state = reader.read(bytes);
  if (state != NameState::Known) return state;
  name = listed_form(reader.name());
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
    state_ = advance(*hello, bytes, name_);
  } else if (auto* request = std::get_if<RequestHostReader>(&reader_)) {
    state_ = advance(*request, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), name_);
  }
  return state_;
}

}  // namespace orvane
