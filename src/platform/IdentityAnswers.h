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

  // What a function of Security.h returned: its status and its output.
  template <class Object>
  struct Result {
    OSStatus status = 0;
    Ref<Object> object;
  };

  // Each function returns the stored answer to an earlier call with the same arguments. If no answer is stored, it
  // calls `find`. guest() is called with an audit token or with a process identifier; the other argument is nil.
  template <class Find>
  static Result<SecCode> guest(const Value& auditToken, const Ref<Number>& pid, Find find) {
    return answer(&IdentityAnswers::guests_, std::pair(auditToken, pid), find);
  }
  template <class Find>
  static Result<SecStaticCode> staticCode(SecCode* code, Find find) {
    return answer(&IdentityAnswers::staticCodes_, Ref<SecCode>::retained(code), find);
  }
  template <class Find>
  static Result<Dictionary> information(SecStaticCode* code, Find find) {
    return answer(&IdentityAnswers::information_, Ref<SecStaticCode>::retained(code), find);
  }
  template <class Find>
  static pid_t responsible(pid_t pid, Find find) {
    return answer(&IdentityAnswers::responsible_, pid, find);
  }

  // The bundle identifier of the last program whose signing information the thread looked up. A provider looks at one
  // program after the other until it finds a browser, so when the provider drops a flow, this is the browser's
  // identifier. Nothing if the thread has not asked, or if that program has no identifier.
  std::optional<std::string> lastIdentifier() const {
    if (information_.empty()) return std::nullopt;
    const Dictionary* information = information_.back().second.object.get();
    return dictionary_copy_string(dictionary_get_dictionary(information, kSecCodeInfoPList), kCFBundleIdentifierKey);
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

  Answers<std::pair<Value, Ref<Number>>, Result<SecCode>> guests_;
  Answers<Ref<SecCode>, Result<SecStaticCode>> staticCodes_;
  Answers<Ref<SecStaticCode>, Result<Dictionary>> information_;
  Answers<pid_t, pid_t> responsible_;
};

}  // namespace orvane
