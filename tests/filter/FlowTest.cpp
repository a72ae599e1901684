#include "filter/Filter.h"
#include "filter/PellUtils.h"

namespace orvane {
namespace {

class FlowTest : public FilterTest {};

class OtherEndpoint : public NWEndpoint {};

Ref<NWEndpoint> host(const char* port) { return NWHostEndpoint::endpointWithHostname("h", port); }
Ref<NWEndpoint> service() { return Ref<OtherEndpoint>::adopt(new OtherEndpoint); }

TEST_F(FlowTest, OnlySocketFlowsToHostsHavePorts) {
  EXPECT_FALSE(isSocketFlow(*plainFlow("http://a/")));
  EXPECT_EQ(socketFlow(*plainFlow("http://a/")), nullptr);
  EXPECT_EQ(port(*plainFlow("http://a:80/")), 0U);

  auto flow = socketFlowTo("53", std::nullopt);
  EXPECT_TRUE(isSocketFlow(*flow));
  EXPECT_EQ(socketFlow(*flow), flow.get());
  const struct {
    std::deque<Ref<NWEndpoint>> endpoints;
    uint64_t port;
  } cases[] = {
      {{}, 0},
      {{service()}, 0},
      {{host("53")}, 53},
      {{host(" +443x")}, 443},
      {{host("domain")}, 0},
      {{host("")}, 0},
      {{host("-1")}, UINT64_MAX},
      {{host("70000")}, 70000},
      // Each step sees the endpoint of its own moment.
      {{host("1"), host("2"), host("3")}, 3},
      {{host("1"), service(), host("3")}, 0},
      {{host("1"), host("2"), nullptr}, 0},
      {{host("1"), host("2"), service()}, 0},
  };
  for (const auto& c : cases) {
    flow->endpoints = c.endpoints;
    flow->endpointReads = 0;
    EXPECT_EQ(port(*flow), c.port);
  }
}

}  // namespace
}  // namespace orvane
