#include "platform/macos/process/SigningCache.h"

#include <algorithm>

namespace orvane {
namespace {

bool is_same(const Value& left, const Value& right) { return left == right; }

template <class T>
bool is_same(const Ref<T>& object, const T* other) {
  return object.get() == other;
}

}  // namespace

// The kept process whose member `member` equals `wanted`; processes_.end() if there is none.
template <class Member, class Wanted>
std::list<SigningCache::Process>::iterator SigningCache::position(Member member, const Wanted& wanted) {
  return std::find_if(processes_.begin(), processes_.end(),
                      [&](const Process& process) { return is_same(process.*member, wanted); });
}

Ref<SecCode> SigningCache::find(const Value& token) {
  const std::lock_guard guard(mutex_);
  const auto process = position(&Process::token, token);
  if (process == processes_.end()) return nullptr;
  processes_.splice(processes_.begin(), processes_, process);
  return process->code;
}

Ref<SecStaticCode> SigningCache::find(const SecCode* code) {
  const std::lock_guard guard(mutex_);
  const auto process = position(&Process::code, code);
  return process == processes_.end() ? nullptr : process->staticCode;
}

Ref<Dictionary> SigningCache::find(const SecStaticCode* code) {
  const std::lock_guard guard(mutex_);
  const auto process = position(&Process::staticCode, code);
  return process == processes_.end() ? nullptr : process->information;
}

void SigningCache::keep(const Value& token, SecCode* code) {
  const std::lock_guard guard(mutex_);
  if (position(&Process::token, token) != processes_.end()) return;  // another thread was first
  processes_.push_front({token, Ref<SecCode>::retained(code), nullptr, nullptr});
  if (processes_.size() > kLimit) processes_.pop_back();
}

void SigningCache::keep(const SecCode* code, SecStaticCode* staticCode) {
  const std::lock_guard guard(mutex_);
  const auto process = position(&Process::code, code);
  if (process != processes_.end()) process->staticCode = Ref<SecStaticCode>::retained(staticCode);
}

void SigningCache::keep(const SecStaticCode* code, Dictionary* information) {
  const std::lock_guard guard(mutex_);
  const auto process = position(&Process::staticCode, code);
  if (process != processes_.end()) process->information = Ref<Dictionary>::retained(information);
}

}  // namespace orvane
