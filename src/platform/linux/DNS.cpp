#include "platform/DNS.h"

#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>

#include <cstdlib>
#include <cstring>
#include <span>

namespace orvane {
namespace {

constexpr size_t kMaxName = NS_MAXCDNAME;  // RFC 1035, section 2.3.4: octets of a name, length octets included
constexpr size_t kTypeAndClass = 4;

// The octets of the name in label form that the bytes start with, its closing zero included. 0 when there is none.
// A question stands alone here, with no message around it, so a compression pointer has nothing to point at.
size_t name_length(std::span<const uint8_t> bytes) {
  for (size_t at = 0; at < bytes.size() && at < kMaxName;) {
    uint8_t label = bytes[at];
    if (label == 0) return at + 1;
    if (label > NS_MAXLABEL) return 0;
    at += 1 + size_t{label};
  }
  return 0;
}

uint16_t big_endian(const uint8_t* bytes) { return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]); }

}  // namespace

dns_question_t* dns_parse_question(const char* buffer, uint32_t length) {
  if (buffer == nullptr) return nullptr;
  std::span bytes(reinterpret_cast<const uint8_t*>(buffer), length);
  size_t name = name_length(bytes);
  if (name == 0 || bytes.size() - name < kTypeAndClass) return nullptr;

  char text[NS_MAXDNAME];
  if (dn_expand(bytes.data(), bytes.data() + name, bytes.data(), text, sizeof text) < 0) return nullptr;

  auto* question = static_cast<dns_question_t*>(std::malloc(sizeof(dns_question_t)));
  if (question == nullptr) return nullptr;
  question->name = strdup(text);
  question->dnstype = big_endian(bytes.data() + name);
  question->dnsclass = big_endian(bytes.data() + name + 2);
  return question;
}

void dns_free_question(dns_question_t* question) {
  if (question == nullptr) return;
  std::free(question->name);
  std::free(question);
}

}  // namespace orvane
