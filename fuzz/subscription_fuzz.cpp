#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "companion/list/BlockList.h"
#include "companion/subscriptions/Signature.h"
#include "companion/subscriptions/Subscription.h"
#include "companion/subscriptions/SubscriptionList.h"
#include "companion/text/Input.h"

using namespace orvane;

namespace {

void require(bool holds) {
  if (!holds) __builtin_trap();
}

bool is_printable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); });
}

}  // namespace

// Reads the bytes as a list from a server, as its signature, and as the two files that the fetcher reads.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  try {
    const SubscriptionList list = convert_list(text, "ads", "source");
    const BlockList read = BlockList::parse(list.text);
    require(printable(list.counts.firstRejected, false) == list.counts.firstRejected);
    require(is_printable(list.text) && read.badLines().empty() && read.size() == list.counts.names &&
            read.groups().size() == 2);
    read.forEachSite([](const ListedSite& site) { require(!site.until && site.group == 1); });
  } catch (const InputError&) {  // the bytes are not a list
  }
  try {
    verify_signature("list", text, "RWSCY8FCDF+8pGsKEMtUzqvlQy3+gIkXglTXXbqY9vk2F29tAVus7DzU");
    require(false);
  } catch (const InputError&) {
  }
  for (const Subscription& each : read_subscriptions(text).subscriptions) {
    const SubscriptionFile again = read_subscriptions(line_of(each));
    require(again.subscriptions == std::vector{each} && is_printable(each.url));
    require(read_subscriptions(without_subscription(text, each.name)).find(each.name) == nullptr);
  }
  const RefreshRequests requests = read_requests(text);
  require(text_of(read_requests(text_of(requests))) == text_of(requests));
  return 0;
}
