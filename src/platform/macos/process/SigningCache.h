#pragma once

#include <cstddef>
#include <list>
#include <mutex>

#include "platform/Security.h"

namespace orvane {

// Keeps what code signing has found out about processes, by audit token, so that the many connections of a browser need
// one look-up. An audit token names one image of one process: it contains the version of the process identifier, which
// changes when the process executes another program. A process identifier names no image: the process can execute
// another program, and the system can reuse the identifier. So look-ups by process identifier are not kept.
// Thread-safe.
class SigningCache {
 public:
  // Limit on the processes. The process that was looked up least recently makes room for a new one.
  static constexpr size_t kLimit = 64;

  // Each of these functions returns null if the object is not kept.
  Ref<SecCode> find(const Value& token);
  Ref<SecStaticCode> find(const SecCode* code);
  Ref<Dictionary> find(const SecStaticCode* code);

  // The second and the third function do nothing if `code` is not kept. So when the first step of a look-up is not
  // kept, its later steps are not kept either.
  void keep(const Value& token, SecCode* code);
  void keep(const SecCode* code, SecStaticCode* staticCode);
  void keep(const SecStaticCode* code, Dictionary* information);

 private:
  struct Process {
    Value token;
    Ref<SecCode> code;
    Ref<SecStaticCode> staticCode;
    Ref<Dictionary> information;
  };

  template <class Member, class Wanted>
  std::list<Process>::iterator position(Member member, const Wanted& wanted);

  std::mutex mutex_;
  std::list<Process> processes_;  // the most recent look-up first
};

}  // namespace orvane
