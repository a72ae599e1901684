#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Security.h"

namespace orvane {

// While an object of this class exists, its thread looks up the identity of each process only once: the functions of
// Security.h and Process.h return the first answer again. The platform asks the provider about one flow under several
// names, and each time the provider asks whose flow it is. Keep the object only while the platform asks about one flow,
// because a process can start another program later.
//
// A thread has at most one such object at a time.
class IdentityAnswers {
 public:
  IdentityAnswers() { ofThisThread() = this; }
  ~IdentityAnswers() { ofThisThread() = nullptr; }
  IdentityAnswers(const IdentityAnswers&) = delete;
  IdentityAnswers& operator=(const IdentityAnswers&) = delete;

  // The object of the calling thread; null if it has none.
  static IdentityAnswers*& ofThisThread() {
    thread_local IdentityAnswers* answers = nullptr;
    return answers;
  }

  // A result of SecCodeCopyGuestWithAttributes.
  struct Guest {
    OSStatus status = 0;
    Ref<SecCode> code;
  };

  // Each function returns the stored answer to an earlier call with the same arguments. If no answer is stored, it
  // calls `find`.
  template <class Find>
  static Guest guest(const Value& auditToken, const Ref<Number>& pid, Find find) {
    return answer(&IdentityAnswers::guests_, std::pair(auditToken, pid), find);
  }
  template <class Find>
  static pid_t responsible(pid_t pid, Find find) {
    return answer(&IdentityAnswers::responsible_, pid, find);
  }

  // The bundle identifier in the signing information that the thread asked for last. A provider looks at one program
  // after the other until it finds a browser, so when the provider drops a flow, this is the browser's identifier.
  // Nothing if the thread has not asked, or if that program has no identifier.
  std::optional<std::string> lastIdentifier() const {
    const Dictionary* list =
        information_ == nullptr ? nullptr : dictionary_get_dictionary(information_.get(), kSecCodeInfoPList);
    return dictionary_copy_string(list, kCFBundleIdentifierKey);
  }
  static void noteInformation(const Ref<Dictionary>& information) {
    if (IdentityAnswers* const known = ofThisThread()) known->information_ = information;
  }

 private:
  // Only two processes matter for a flow: the one that opened it, and the one that is responsible for it. So each list
  // has at most two entries.
  template <class Key, class Answer>
  using Answers = std::vector<std::pair<Key, Answer>>;

  template <class Key, class Answer>
  using AnswersMember = Answers<Key, Answer> IdentityAnswers::*;

  template <class Key, class Answer, class Find>
  static Answer answer(AnswersMember<Key, Answer> list, const Key& key, Find find) {
    IdentityAnswers* const known = ofThisThread();
    if (known == nullptr) return find();
    for (const auto& [knownKey, result] : known->*list) {
      if (knownKey == key) return result;
    }
    return (known->*list).emplace_back(key, find()).second;
  }

  Answers<std::pair<Value, Ref<Number>>, Guest> guests_;
  Answers<pid_t, pid_t> responsible_;
  Ref<Dictionary> information_;
};

}  // namespace orvane
