#pragma once

#include <cstdint>

namespace orvane {

// One entry of a DNS message's question section (RFC 1035, section 4.1.2).
struct dns_question_t {
  char* name;         // dotted text, ended by a NUL; may be null
  uint16_t dnstype;   // host byte order
  uint16_t dnsclass;  // host byte order
};

// Reads one question from the first byte of the buffer on: a name in label form, then type and class. Null when the
// buffer does not hold them whole. The result belongs to the caller, who gives it to dns_free_question.
dns_question_t* dns_parse_question(const char* buffer, uint32_t length);

void dns_free_question(dns_question_t* question);

}  // namespace orvane
