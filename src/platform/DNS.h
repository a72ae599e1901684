#pragma once

#include <cstdint>

namespace orvane {

// One entry of a DNS message's question section (RFC 1035, section 4.1.2).
struct dns_question_t {
  char* name;         // dotted text, ended by a NUL; may be null
  uint16_t dnstype;   // host byte order
  uint16_t dnsclass;  // host byte order
};

// Reads one question at the start of the buffer: a name in label form, then type and class. Null when the question is
// malformed or cut off. The caller releases the result with dns_free_question.
dns_question_t* dns_parse_question(const char* buffer, uint32_t length);

void dns_free_question(dns_question_t* question);

}  // namespace orvane
