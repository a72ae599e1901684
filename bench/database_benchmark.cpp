// Compares a look-up in the database of host names with the two steps that such a look-up needs at least: a lock, and a
// look-up in a hash table (here the standard library's). Measures each step alone.
#include <benchmark/benchmark.h>

#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "database/db.h"
#include "platform/Synchronization.h"

namespace orvane {
namespace {

std::string name_at(size_t i) { return "host-" + std::to_string(i) + ".blocked.example"; }

// Names of the list, in random order, so that the processor cannot load the next entry into its cache ahead of time.
std::vector<std::string> random_names(size_t hosts) {
  std::mt19937_64 random(1);
  std::vector<std::string> names;
  names.reserve(4096);
  for (int i = 0; i < 4096; ++i) names.push_back(name_at(random() % hosts));
  return names;
}

void fill(size_t hosts) {
  static size_t held = 0;
  static std::once_flag started;
  std::call_once(started, [] { db_init(); });
  if (held == hosts) return;
  Value::Set names;
  for (size_t i = 0; i < hosts; ++i) names.insert(Value::string(name_at(i)));
  db_hostname_set(Value::set(std::move(names)));
  held = hosts;
}

std::mutex preparation;
std::shared_ptr<std::unordered_map<std::string, int>> plain_table;
void prepare(size_t hosts, bool plain) {
  std::lock_guard lock(preparation);
  if (plain && (!plain_table || plain_table->size() != hosts)) {
    plain_table = std::make_shared<std::unordered_map<std::string, int>>();
    for (size_t i = 0; i < hosts; ++i) plain_table->emplace(name_at(i), 0);
  }
  if (!plain) fill(hosts);
}

void HasHostname(benchmark::State& state) {
  const auto hosts = static_cast<size_t>(state.range(0));
  prepare(hosts, false);
  const std::vector<std::string> names = random_names(hosts);
  size_t next = static_cast<size_t>(state.thread_index()) * 1000;
  for (auto _ : state) benchmark::DoNotOptimize(db_has_hostname(names[next++ % names.size()]));
}

void PlainFind(benchmark::State& state) {
  const auto hosts = static_cast<size_t>(state.range(0));
  prepare(hosts, true);
  const std::vector<std::string> names = random_names(hosts);
  const auto table = plain_table;
  size_t next = static_cast<size_t>(state.thread_index()) * 1000;
  for (auto _ : state) benchmark::DoNotOptimize(table->find(names[next++ % names.size()]));
}

RecursiveMutex bare_mutex;

void LockAlone(benchmark::State& state) {
  {
    std::lock_guard lock(preparation);
    bare_mutex.initialise();
  }
  for (auto _ : state) {
    bare_mutex.lock();
    bare_mutex.unlock();
  }
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  for (int64_t hosts : {10, 10000, 1000000}) benchmark->Arg(hosts);
  benchmark->ThreadRange(1, 2)->UseRealTime();
}

BENCHMARK(LockAlone)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(PlainFind)->Apply(sizes);
BENCHMARK(HasHostname)->Apply(sizes);

}  // namespace
}  // namespace orvane

BENCHMARK_MAIN();
