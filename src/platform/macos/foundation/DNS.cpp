#include "platform/DNS.h"

#include <dns_util.h>

#include <cstddef>

#include "platform/QuestionName.h"

namespace orvane {

// Our type has the same layout as the resolver library's, so a pointer to one type can be cast to a pointer to the
// other.
static_assert(sizeof(dns_question_t) == sizeof(::dns_question_t));
static_assert(offsetof(dns_question_t, name) == offsetof(::dns_question_t, name));
static_assert(offsetof(dns_question_t, dnstype) == offsetof(::dns_question_t, dnstype));
static_assert(offsetof(dns_question_t, dnsclass) == offsetof(::dns_question_t, dnsclass));

dns_question_t* dns_parse_question(const char* buffer, uint32_t length) {
  // The resolver library follows compression pointers, and its documentation does not exclude endless loops. The sender
  // of the question chooses the bytes, so reject pointers first.
  if (question_name_length({reinterpret_cast<const uint8_t*>(buffer), length}) == 0) return nullptr;
  return reinterpret_cast<dns_question_t*>(::dns_parse_question(buffer, length));
}

void dns_free_question(dns_question_t* question) { ::dns_free_question(reinterpret_cast<::dns_question_t*>(question)); }

}  // namespace orvane
