#include "platform/linux/flow/FlowCounters.h"

#include "platform/Log.h"

namespace orvane {

void log_flow_counters() {
  const FlowCounters& c = flow_counters();
  ORVANE_LOG_DEFAULT(default_log(),
                     "flows: %lu shown, %lu allowed, %lu dropped, %lu examined (%lu allowed, %lu dropped), "
                     "%lu of unknown owners, %lu of unknown names, %lu of hidden names, %lu ended",
                     c.flows.load(), c.allowed.load(), c.dropped.load(), c.examined.load(), c.allowedByData.load(),
                     c.droppedByData.load(), c.unknownOwners.load(), c.unknownNames.load(), c.hiddenNames.load(),
                     c.ended.load());
  ORVANE_LOG_DEFAULT(
      default_log(),
      "queue: %lu packets, %lu after a verdict, %lu overruns, %lu unjudged, %lu releases, %lu rule repairs, "
      "longest hold %lu microseconds",
      c.queuedPackets.load(), c.lateQueued.load(), c.queueOverruns.load(), c.unjudgedPackets.load(),
      c.queueReleases.load(), c.ruleRepairs.load(), c.longestHoldMicroseconds.load());
}

}  // namespace orvane
