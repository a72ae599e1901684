#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>

#include "platform/Security.h"

namespace orvane {

// Keeps what code signing has found out about processes, by audit token, so that the many connections of a browser need
// one look-up. An audit token names one image of one process: it contains the version of the process identifier, which
// changes when the process executes another program. Look-ups by process identifier are not kept, because the system
// reuses these identifiers. Thread-safe.
class SigningCache {
 public:
  using Token = std::array<uint8_t, 32>;

  // Limit on the processes. The process that was looked up least recently makes room for a new one.
  static constexpr size_t kLimit = 64;

  // Each of these functions returns null if the object is not kept.
  Ref<SecCode> find(const Token& token);
  Ref<SecStaticCode> find(const SecCode* code);
  Ref<Dictionary> find(const SecStaticCode* code);

  // The second and the third function do nothing if `code` is not kept.
  void keep(const Token& token, SecCode* code);
  void keep(const SecCode* code, SecStaticCode* staticCode);
  void keep(const SecStaticCode* code, Dictionary* information);

 private:
  struct Process {
    Token token;
    Ref<SecCode> code;
    Ref<SecStaticCode> staticCode;
    Ref<Dictionary> information;
  };

  template <class Member, class Key>
  std::list<Process>::iterator position(Member member, const Key& key);

  std::mutex mutex_;
  std::list<Process> processes_;  // the most recent look-up first
};

}  // namespace orvane
