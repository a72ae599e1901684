#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>

#include "platform/Security.h"

namespace orvane {

// Keeps what code signing has found out about processes, so that the many connections of a browser need one look-up.
// Thread-safe.
class SigningCache {
 public:
  using Token = std::array<uint8_t, 32>;

  // An audit token names one image of one process: it contains the version of the process identifier, which changes
  // when the process executes another program. A process identifier names no image, because the system reuses it. So
  // what was found by process identifier is kept only for flows of the image that `token` names. While this image runs,
  // the system may hold the process `pid` responsible for it. If `pid` has ended since, or has executed another
  // program, what is kept still describes the program that it ran when it was first asked about.
  struct Key {
    Token token{};                 // of the process that opened the flow
    std::optional<int32_t> pid{};  // of the process that was looked up; nothing if it was looked up by `token`
    bool operator==(const Key&) const = default;
  };

  // Limit on the look-ups that are kept. The least recent look-up makes room for a new one.
  static constexpr size_t kLimit = 128;

  // Each of these functions returns null if the object is not kept.
  Ref<SecCode> find(const Key& key);
  Ref<SecStaticCode> find(const SecCode* code);
  Ref<Dictionary> find(const SecStaticCode* code);

  // The second and the third function do nothing if `code` is not kept.
  void keep(const Key& key, SecCode* code);
  void keep(const SecCode* code, SecStaticCode* staticCode);
  void keep(const SecStaticCode* code, Dictionary* information);

 private:
  struct Process {
    Key key;
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
