// Measures a verdict on a new flow, the two look-ups that this verdict needs, and a verdict with a list of 200,000
// sites that are blocked with their subdomains. Also measures os_log_dump() for a log whose debug level is off and, for
// comparison, a copy of the same bytes.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "database/db.h"
#include "database/db_browsers.h"
#include "diagnostics/os_log_dump.h"
#include "filter/FilterDataProvider.h"
#include "identity/PLAudtToken.h"
#include "platform/linux/flow/FilterSession.h"
#include "platform/linux/process/ProcessInformation.h"

namespace orvane {
namespace {

Value own_token() {
  const audit_token_t token = audit_token_of_process(getpid()).value();
  uint8_t bytes[sizeof token];
  std::memcpy(bytes, &token, sizeof token);
  return Value::data(bytes);
}

// A flow that belongs to this process.
class OwnFlow : public NEFilterSocketFlow {
 public:
  Value sourceAppAuditToken() const override { return token_; }
  Ref<NSURL> URL() const override { return nullptr; }
  Ref<NWEndpoint> remoteEndpoint() const override { return endpoint_; }
  std::optional<std::string> remoteHostname() const override { return "held.example"; }
  int32_t socketType() const override { return 1; }

 private:
  Value token_ = own_token();
  Ref<NWEndpoint> endpoint_ = NWHostEndpoint::endpointWithHostname("192.0.2.1", "443");
};

const std::string& own_identifier() {
  static const std::string identifier = [] {
    db_init();
    const auto found = PLAudtToken::auditTokenWithData(own_token())->bundleIdentifier();
    db_browser_add(Value::string(*found));
    db_hostname_add(Value::string("held.example"));
    return *found;
  }();
  return identifier;
}

// Finds which program opened a flow, and whether this program is a browser.
void IdentityLookUp(benchmark::State& state) {
  own_identifier();
  const Value token = own_token();
  for (auto _ : state) {
    const auto identifier = PLAudtToken::auditTokenWithData(token)->bundleIdentifier();
    benchmark::DoNotOptimize(db_is_browser(*identifier));
  }
}

void HostLookUp(benchmark::State& state) {
  own_identifier();
  for (auto _ : state) benchmark::DoNotOptimize(db_has_hostname("held.example"));
}

void NewFlowVerdict(benchmark::State& state) {
  own_identifier();
  const auto provider = FilterDataProvider::init();
  const auto flow = Ref<OwnFlow>::adopt(new OwnFlow);
  for (auto _ : state) benchmark::DoNotOptimize(provider->handleNewFlow(*flow));
}

// The verdict on a flow to a host with several labels. FilterSession asks the provider about each name that would cover
// the host.
void SubdomainsVerdict(benchmark::State& state, const char* host) {
  own_identifier();
  Value::Set sites{Value::string("held.example")};
  for (int i = 0; i < 200'000; ++i) sites.insert(Value::string(".host-" + std::to_string(i) + ".example"));
  db_hostname_set(Value::set(std::move(sites)));
  const Ref<NEFilterDataProvider> provider = FilterDataProvider::init();
  const auto flow = LinuxSocketFlow::create(own_token(), "192.0.2.1", 443, SOCK_STREAM);
  flow->setRemoteHostname(host);
  for (auto _ : state) benchmark::DoNotOptimize(FilterSession(provider, flow).newFlow());
}

void DumpWithDebugOff(benchmark::State& state) {
  const os_log_t log = os_log_create("bench", "bench");
  const std::string data(16384, 'x');
  for (auto _ : state) os_log_dump(log, "prefix:", 2, 32, 1, data.data(), data.size(), true);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void CopyOfTheSameBytes(benchmark::State& state) {
  const std::string data(16384, 'x');
  std::string copy(data.size(), '\0');
  for (auto _ : state) {
    std::memcpy(copy.data(), data.data(), data.size());
    benchmark::DoNotOptimize(copy.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

BENCHMARK(IdentityLookUp);
BENCHMARK(HostLookUp);
BENCHMARK(NewFlowVerdict);
BENCHMARK_CAPTURE(SubdomainsVerdict, allowed, "a.b.c.free.example");
BENCHMARK_CAPTURE(SubdomainsVerdict, dropped, "a.b.c.host-7.example");
BENCHMARK(DumpWithDebugOff);
BENCHMARK(CopyOfTheSameBytes);

}  // namespace
}  // namespace orvane

BENCHMARK_MAIN();
