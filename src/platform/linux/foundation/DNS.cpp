#include "platform/DNS.h"

#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>

#include <cstdlib>
#include <cstring>
#include <span>

#include "platform/QuestionName.h"

namespace orvane {
namespace {

constexpr size_t kTypeAndClass = 4;

uint16_t big_endian(const uint8_t* bytes) { return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]); }

}  // namespace

dns_question_t* dns_parse_question(const char* buffer, uint32_t length) {
  if (buffer == nullptr) return nullptr;
  std::span bytes(reinterpret_cast<const uint8_t*>(buffer), length);
  size_t name = question_name_length(bytes);
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
