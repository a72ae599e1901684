// Measures the control channel. Compares a ping with a bare echo over a Unix-domain socket. Also measures edits of the
// database, from one client and from several at once.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "companion/client/Client.h"
#include "database/db.h"
#include "platform/XPC.h"
#include "service/OrvaneController.h"

namespace orvane {
namespace {

class Delegate final : public NSXPCListenerDelegate {
 public:
  bool shouldAcceptNewConnection(NSXPCListener&, NSXPCConnection& connection) override {
    connection.setExportedInterface(NSXPCInterface::interfaceWithProtocol(OrvaneSECommunication::kProtocol));
    connection.setExportedObject(OrvaneController::shared());
    connection.activate();
    return true;
  }
};

// The extension's side of the channel, with its socket in a temporary folder.
class Extension {
 public:
  Extension() : delegate_(Ref<Delegate>::adopt(new Delegate)) {
    std::string folder = (std::filesystem::temp_directory_path() / "orvane-ping-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) std::abort();
    folder_ = folder;
    setenv("RUNTIME_DIRECTORY", folder.c_str(), 1);
    static std::once_flag started;
    std::call_once(started, [] { db_init(); });
    listener_ = NSXPCListener::initWithMachServiceName(Value::string("service"));
    listener_->setDelegate(delegate_.get());
    listener_->resume();
  }
  ~Extension() {
    listener_ = nullptr;
    std::filesystem::remove_all(folder_);
  }
  Extension(const Extension&) = delete;
  Extension& operator=(const Extension&) = delete;

  std::unique_ptr<Client> client() const {
    return connect_client({.service = "", .socket = (folder_ / "service").string()});
  }

 private:
  std::filesystem::path folder_;
  Ref<Delegate> delegate_;
  Ref<NSXPCListener> listener_;
};

// A thread that sends each message back.
class BareEcho {
 public:
  BareEcho() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_.data()) != 0) std::abort();
    thread_ = std::thread([socket = ends_[1]] {
      std::array<char, 64> message;
      for (ssize_t got; (got = recv(socket, message.data(), message.size(), 0)) > 0;) {
        send(socket, message.data(), static_cast<size_t>(got), MSG_NOSIGNAL);
      }
    });
  }
  ~BareEcho() {
    shutdown(ends_[0], SHUT_RDWR);
    thread_.join();
    for (int end : ends_) close(end);
  }
  BareEcho(const BareEcho&) = delete;
  BareEcho& operator=(const BareEcho&) = delete;

  void ask() {
    std::array<char, 64> message{};
    send(ends_[0], message.data(), message.size(), MSG_NOSIGNAL);
    recv(ends_[0], message.data(), message.size(), MSG_WAITALL);
  }

 private:
  std::array<int, 2> ends_;
  std::thread thread_;
};

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

// Binds the calling thread, and the threads that it starts later, to one of the processors that this program may use:
// the one at index `which`. If there is no such processor, the threads may run on all processors that the program may
// use.
void stay_on(size_t which) {
  static const cpu_set_t kAllowed = [] {
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    return set;
  }();
  cpu_set_t one;
  CPU_ZERO(&one);
  for (size_t processor = 0; processor < CPU_SETSIZE; ++processor) {
    if (CPU_ISSET(processor, &kAllowed) && which-- == 0) CPU_SET(processor, &one);
  }
  sched_setaffinity(0, sizeof one, CPU_COUNT(&one) == 1 ? &one : &kAllowed);
}

// Alternates between pings and echoes, so that other load on the machine slows pings and echoes alike. Takes the
// medians. Binds the client and the server to the same processor, or to two different processors. The scheduler must
// not choose the processors, because it might run the pings on one processor and the echoes on two. Waking a second
// processor costs more than a ping or an echo.
void PingAgainstBareEcho(benchmark::State& state) {
  stay_on(0);
  Extension extension;
  BareEcho echo;
  stay_on(static_cast<size_t>(state.range(0)) - 1);
  using Clock = std::chrono::steady_clock;
  auto client = extension.client();
  std::vector<double> pings, echoes;
  constexpr int kInTurn = 50;
  auto microseconds = [](Clock::duration turn) {
    return std::chrono::duration<double, std::micro>(turn).count() / kInTurn;
  };
  for (auto _ : state) {
    auto begin = Clock::now();
    for (int i = 0; i < kInTurn; ++i) client->ping();
    auto middle = Clock::now();
    for (int i = 0; i < kInTurn; ++i) echo.ask();
    auto end = Clock::now();
    pings.push_back(microseconds(middle - begin));
    echoes.push_back(microseconds(end - middle));
    state.SetIterationTime(std::chrono::duration<double>(middle - begin).count());
  }
  state.counters["ping_us"] = median(pings);
  state.counters["echo_us"] = median(echoes);
  state.counters["times_echo"] = median(pings) / median(echoes);
  stay_on(SIZE_MAX);
}

const Extension& shared_extension() {
  static const Extension kExtension;
  return kExtension;
}

// Each client sends one edit at a time, from a thread of its own.
void Edits(benchmark::State& state) {
  auto client = shared_extension().client();
  Value name = Value::string("host-" + std::to_string(state.thread_index()) + ".example.org");
  for (auto _ : state) client->addHostname(name);
  state.SetItemsProcessed(state.iterations());
}

// Each client sends a thousand edits without waiting for the replies in between.
void EditsInAList(benchmark::State& state) {
  auto client = shared_extension().client();
  std::vector<std::string> names;
  names.reserve(1000);
  for (int i = 0; i < 1000; ++i) {
    names.push_back("host-" + std::to_string(state.thread_index()) + "-" + std::to_string(i) + ".example.org");
  }
  for (auto _ : state) client->addHostnames(names);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(names.size()));
}

BENCHMARK(PingAgainstBareEcho)->ArgName("processors")->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Edits)->Threads(1)->Threads(4)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(EditsInAList)->Threads(1)->Threads(4)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace orvane

BENCHMARK_MAIN();
