#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/names/Subdomains.h"

namespace orvane {

// Asks a provider for its verdict on a flow, under all names that the list may have for the flow (Subdomains.h):
//
//   1. under the flow's own name;
//   2. if the verdict is Allow: under the names with the subdomains mark, up to the first verdict that is not Allow;
//   3. if the last verdict is Drop: under the names with the exception mark. If a verdict is Drop again, the list has
//      an exception for the flow's host, so the result is Allow.
//
// `host`: the flow's own name in the form that listed_form() gives; nothing if it is unknown. `ask(alias)` asks once,
// and returns the verdict. Without an alias, it asks under the flow's own name.
template <class Ask>
auto judge_under_all_names(const std::optional<std::string>& host, Ask ask) {
  auto verdict = ask(std::optional<std::string>());
  using Verdict = decltype(verdict);
  using Kind = decltype(verdict.kind);
  const auto hosts = host ? covering_hosts(*host) : std::vector<std::string_view>();
  // Returns the last verdict.
  const auto askUnder = [&](std::string_view mark) {
    auto answer = Verdict::allowVerdict();
    for (size_t i = 0; i < hosts.size() && answer.kind == Kind::Allow; ++i)
      answer = ask(std::optional(std::string(mark).append(hosts[i])));
    return answer;
  };
  if (verdict.kind == Kind::Allow) verdict = askUnder(kSubdomainsMark);
  if (verdict.kind == Kind::Drop && askUnder(kExceptionMark).kind == Kind::Drop) return Verdict::allowVerdict();
  return verdict;
}

}  // namespace orvane
