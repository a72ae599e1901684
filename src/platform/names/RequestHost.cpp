#include "platform/names/RequestHost.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <utility>

#include "platform/names/Authority.h"

namespace orvane {
namespace {

constexpr size_t kMethodLimit = 31;
constexpr size_t kHostFieldLimit = 512;  // longer than any host name with a port
constexpr std::string_view kHostField = "host:";
constexpr std::string_view kVersion = " HTTP/1.";  // a request line ends with this and one digit
constexpr size_t kVersionLength = kVersion.size() + 1;

bool may_be_method(std::string_view text) {
  return text.size() <= kMethodLimit &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isalnum(c) || c == '-'; });
}

char lower_case(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

bool may_be_request(std::string_view bytes) {
  const std::string_view method = bytes.substr(0, bytes.find(' '));
  return method.empty() ? bytes.empty() : may_be_method(method);
}

RequestHostReader::State RequestHostReader::read(std::string_view bytes) {
  while (state_ == State::Open && !bytes.empty()) {
    // Lines may be long (URLs, cookies) and most are skipped. So a line is read in pieces as they arrive, and is never
    // stored as a whole.
    const size_t end = bytes.find('\n');
    const std::string_view piece = bytes.substr(0, end);
    bytes.remove_prefix(end == std::string_view::npos ? bytes.size() : end + 1);
    read_ += piece.size() + (end == std::string_view::npos ? 0 : 1);
    state_ = readPiece(piece);
    if (state_ == State::Open && end != std::string_view::npos) state_ = finishLine();
    if (state_ == State::Open && read_ > kLimit) state_ = State::Unknown;
  }
  return state_;
}

// Reads a piece of the current line.
RequestHostReader::State RequestHostReader::readPiece(std::string_view piece) {
  if (part_ == Part::Method) {
    const size_t space = piece.find(' ');
    kept_ += piece.substr(0, std::min(space, kMethodLimit + 1));
    if (!may_be_method(kept_)) return State::Unknown;
    if (space == std::string_view::npos) return State::Open;
    if (kept_.empty()) return State::Unknown;
    kept_.clear();
    part_ = Part::Target;
    piece.remove_prefix(space);
  }
  if (part_ == Part::Target) {
    // Only the end of the request line is kept: the version, and the carriage return after it.
    constexpr size_t kEnd = kVersionLength + 1;
    kept_ += piece.substr(piece.size() - std::min(piece.size(), kEnd));
    if (kept_.size() > kEnd) kept_.erase(0, kept_.size() - kEnd);
  }
  if (part_ == Part::FieldName) {
    const size_t taken = std::min(piece.size(), kHostField.size() - kept_.size());
    std::transform(piece.begin(), piece.begin() + static_cast<ptrdiff_t>(taken), std::back_inserter(kept_), lower_case);
    piece.remove_prefix(taken);
    if (kept_.size() == kHostField.size()) {
      part_ = kept_ == kHostField ? Part::HostField : Part::OtherField;
      kept_.clear();
    }
  }
  if (part_ == Part::HostField) {
    kept_ += piece.substr(0, kHostFieldLimit + 1);
    if (kept_.size() > kHostFieldLimit) return State::Unknown;
  }
  return State::Open;
}

RequestHostReader::State RequestHostReader::finishLine() {
  if (kept_.ends_with('\r')) kept_.pop_back();
  switch (part_) {
    case Part::Method:
      return State::Unknown;
    case Part::Target:
      // A first line without a version belongs to another protocol, for example SMTP. A client of such a protocol may
      // wait for the server's answer to this line, and the server gets the line only after the verdict. So the state
      // must become Unknown now: no more bytes would come before the verdict.
      if (kept_.size() < kVersionLength || !kept_.substr(kept_.size() - kVersionLength).starts_with(kVersion)) {
        return State::Unknown;
      }
      break;
    case Part::FieldName:
      if (kept_.empty()) return State::Unknown;  // an empty line ends the head
      break;
    case Part::OtherField:
      break;
    case Part::HostField:
      return takeHost();
  }
  kept_.clear();
  part_ = Part::FieldName;
  return State::Open;
}

RequestHostReader::State RequestHostReader::takeHost() {
  std::string_view field = kept_;
  constexpr std::string_view kSpace = " \t";
  field.remove_prefix(std::min(field.find_first_not_of(kSpace), field.size()));
  field = field.substr(0, field.find_last_not_of(kSpace) + 1);
  auto authority = parse_authority(field);
  if (!authority) return State::Unknown;
  name_ = std::move(authority->host);
  return State::Known;
}

}  // namespace orvane
