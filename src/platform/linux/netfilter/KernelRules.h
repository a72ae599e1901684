#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

namespace orvane {

// The filter's rules in the kernel (KernelRulesText.h), in the network namespace of the calling thread.
// Not thread-safe.
class KernelRules {
 public:
  KernelRules();
  ~KernelRules();  // leaves the rules in place; see remove()

  // Installs the rules of the settings in place of any older rules of ours. On failure, removes all our rules and
  // returns an error.
  std::optional<std::string> install(const NEFilterSettings& settings);

  // A descriptor that becomes readable when a program, or this object, has changed the kernel's rules. With the
  // legacy back end of iptables, the descriptor is -1, because the kernel then sends no messages; call check() every
  // half second instead.
  int changeDescriptor() const;

  enum class State { Intact, Repaired, Broken };
  // Checks whether our chains, and the jumps to them from the built-in chains, are in the kernel as installed, and
  // whether each jump is the first rule of its built-in chain. If not, installs the chains and jumps again. Discards
  // the messages of changeDescriptor(). If the result is Broken, `error` has the reason. Ends early when `stop`, an
  // eventfd(2), becomes readable; the result then says nothing about the rules.
  State check(std::string& error, int stop = -1);

  // Removes the rules, if there are any. Takes 1.4 s at most. Returns an error on failure.
  std::optional<std::string> remove();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace orvane
