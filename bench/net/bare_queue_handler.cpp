// Uses the kernel rules and the packet queue as the extension does, but allows every connection without reading its
// packets. So it shows, in the network benchmark, the lowest cost that a filter with this queue can have. Ends when its
// standard input is closed.

#include <poll.h>

#include <cstdio>

#include "platform/linux/netfilter/KernelRules.h"
#include "platform/linux/netfilter/KernelRulesText.h"
#include "platform/linux/netfilter/PacketQueue.h"

using namespace orvane;

int main() {
  std::vector<NEFilterRule> rules;
  for (const char* port : {"80", "443"}) {
    rules.push_back(NEFilterRule::initWithNetworkRule(
        NENetworkRule::initWithRemoteNetwork(NWHostEndpoint::endpointWithHostname("", port), 0, nullptr, 0,
                                             NENetworkRuleProtocol::TCP, NETrafficDirection::Outbound),
        NEFilterAction::FilterData));
  }
  PacketQueue queue(kQueueNumber);
  KernelRules kernel;
  auto error = queue.open();
  if (!error) error = kernel.install(NEFilterSettings::initWithRules(std::move(rules), NEFilterAction::Allow));
  if (error) {
    std::fprintf(stderr, "bare_queue_handler: %s\n", error->c_str());
    return 1;
  }
  std::puts("ready");
  std::fflush(stdout);
  auto allow = [&](const QueuedPacket& packet) { queue.repeat(packet.id, answer_mark(packet.mark, kMarkAllowed)); };
  pollfd events[] = {{queue.descriptor(), POLLIN, 0}, {0, POLLIN, 0}};
  while (poll(events, 2, -1) > 0 && events[1].revents == 0) {
    while (queue.read(allow) == PacketQueue::Read::Packet) {
    }
  }
  kernel.remove();
  return 0;
}
