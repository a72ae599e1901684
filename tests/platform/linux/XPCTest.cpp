#include <gtest/gtest.h>
#include <kj/io.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <fstream>
#include <mutex>
#include <thread>

#include "companion/Client.h"
#include "platform/StandIn.h"
#include "platform/XPC.h"
#include "platform/linux/ControlPeer.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/TemporaryFolder.h"
#include "service/OrvaneSECommunication.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

// Something that threads change and a test waits for.
template <class T>
class Watched {
 public:
  void change(const std::function<void(T&)>& work) {
    std::lock_guard lock(mutex_);
    work(value_);
    changed_.notify_all();
  }
  bool await(const std::function<bool(const T&)>& condition, std::chrono::milliseconds limit = 20s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return condition(value_); });
  }
  T get() {
    std::lock_guard lock(mutex_);
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  T value_{};
};

struct Exported final : OrvaneSECommunication {
  Watched<std::vector<std::pair<std::string, Value>>> received;
  std::atomic<uint64_t> changes{0};
  std::function<void()> whileStarting = [] {};

  void note(const char* message, const Value& value = nullptr) {
    received.change([&](auto& all) { all.emplace_back(message, value); });
  }
  void pingWithReply(const BooleanReply& reply) override { reply(true); }
  void getAppFilterStateWithReply(const BooleanReply& reply) override { reply(false); }
  void start() override {
    note("start");
    whileStarting();
  }
  void stop() override { note("stop"); }
  void addApplicationIdentifier(const Value& value) override { note("addApplicationIdentifier", value); }
  void removeApplicationIdentifier(const Value& value) override { note("removeApplicationIdentifier", value); }
  void setApplicationIdentifiers(const Value& value) override { note("setApplicationIdentifiers", value); }
  void addHostname(const Value& value) override {
    ++changes;
    note("addHostname", value);
  }
  void removeHostname(const Value& value) override { note("removeHostname", value); }
  void setHostnames(const Value& value) override { note("setHostnames", value); }
  void setProperties(const Value& properties, const Value& forHostname) override {
    note("setProperties", Value::array({properties, forHostname}));
  }
  void getChangesCount(const CountReply& reply) override { reply(changes); }
};

using Ends = std::vector<std::string>;

struct Delegate final : NSXPCListenerDelegate {
  Ref<Exported> exported = Ref<Exported>::adopt(new Exported);
  Watched<Ends> ends;
  std::atomic<bool> accepts{true}, exports{true}, activates{true};
  std::chrono::milliseconds beforeHandlers{0};

  bool shouldAcceptNewConnection(NSXPCListener&, NSXPCConnection& connection) override {
    if (exports)
      connection.setExportedInterface(NSXPCInterface::interfaceWithProtocol(OrvaneSECommunication::kProtocol));
    connection.setExportedObject(exported.get());
    if (activates) connection.activate();
    std::this_thread::sleep_for(beforeHandlers);
    connection.setInvalidationHandler([this] { note("invalidated"); });
    connection.setInterruptionHandler([this] { note("interrupted"); });
    return accepts;
  }
  void note(const char* end) {
    ends.change([&](Ends& all) { all.emplace_back(end); });
  }
};

class XPC : public testing::Test {
 protected:
  XPC() {
    setenv("RUNTIME_DIRECTORY", folder_.path().c_str(), 1);
    stand_in::take_log();
  }
  ~XPC() override { unsetenv("RUNTIME_DIRECTORY"); }

  Ref<NSXPCListener> listen(const Value& name = Value::string("service")) {
    auto listener = NSXPCListener::initWithMachServiceName(name);
    listener->setDelegate(delegate_.get());
    listener->resume();
    return listener;
  }

  std::string path() const { return folder_.path() / "service"; }
  std::unique_ptr<Client> client() const { return connect_client({.service = "", .socket = path()}); }

  Descriptor connected() const {
    Descriptor peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(peer.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return peer;
  }
  static void send(const Descriptor& peer, const std::string& bytes) {
    EXPECT_EQ(::send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }

  Exported& exported() { return *delegate_->exported; }
  bool awaitReceived(size_t count) {
    return exported().received.await([=](const auto& all) { return all.size() >= count; });
  }
  bool awaitEnds(const Ends& ends) {
    return delegate_->ends.await([&](const Ends& all) { return all == ends; });
  }
  static size_t errors() {
    size_t count = 0;
    for (const std::string& line : stand_in::take_log()) count += line.starts_with("default!") ? 1 : 0;
    return count;
  }

  TemporaryFolder folder_;
  Ref<Delegate> delegate_ = Ref<Delegate>::adopt(new Delegate);
};

TEST_F(XPC, EveryMessageArrivesWithItsArgumentsAndItsReply) {
  auto listener = listen();
  auto peer = client();
  Value text = Value::string("example.org"), set = Value::set({text});
  EXPECT_TRUE(peer->ping());
  EXPECT_FALSE(peer->appFilterState());
  peer->start();
  peer->stop();
  peer->addApplicationIdentifier(text);
  peer->removeApplicationIdentifier(nullptr);
  peer->setApplicationIdentifiers(Value::array({text}));
  peer->addHostname(text);
  peer->removeHostname(Value::number(7));
  peer->setHostnames(set);
  peer->setProperties(Value::dictionary({{Value::string("DontBlockUntil"), Value::date(5)}}), text);
  exported().changes = UINT64_MAX;
  EXPECT_EQ(peer->changesCount(), UINT64_MAX);
  std::vector<std::pair<std::string, Value>> expected = {
      {"start", nullptr},
      {"stop", nullptr},
      {"addApplicationIdentifier", text},
      {"removeApplicationIdentifier", nullptr},
      {"setApplicationIdentifiers", Value::array({text})},
      {"addHostname", text},
      {"removeHostname", Value::number(7)},
      {"setHostnames", set},
      {"setProperties", Value::array({Value::dictionary({{Value::string("DontBlockUntil"), Value::date(5)}}), text})}};
  EXPECT_EQ(exported().received.get(), expected);
}

TEST_F(XPC, NoEditOfSeveralClientsIsLostOrOutOfOrder) {
  auto listener = listen();
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this, thread] {
      std::vector<std::string> names;
      for (int i = 0; i < 1000; ++i) names.push_back(std::to_string(thread) + "." + std::to_string(10000 + i));
      client()->addHostnames(names);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(client()->changesCount(), 4000u);
  std::string last[4];
  for (const auto& [message, name] : exported().received.get()) {
    std::string& before = last[name.asString()[0] - '0'];
    EXPECT_LT(before, name.asString());
    before = name.asString();
  }
}

TEST_F(XPC, NoConnectionWaitsForTheCallOfAnother) {
  std::atomic<int> together{0};
  exported().whileStarting = [&] {
    if (awaitReceived(2)) ++together;
  };
  auto listener = listen();
  std::thread other([this] { client()->start(); });
  client()->start();
  other.join();
  EXPECT_EQ(together, 2);
}

TEST_F(XPC, AMillionNamesAreWithinTheLimits) {
  auto listener = listen();
  std::vector<std::string> names;
  for (int i = 0; i < 1'000'000; ++i) names.push_back("host-" + std::to_string(i) + ".example.org");
  uint64_t lastSent = 0, lastTotal = 0;
  auto peer = client();
  peer->setHostnames(names, [&](uint64_t sent, uint64_t total) {
    EXPECT_GE(sent, lastSent);
    lastSent = sent;
    lastTotal = total;
  });
  EXPECT_GT(lastTotal, 30'000'000u);
  EXPECT_EQ(lastSent, lastTotal);
  auto received = exported().received.get();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].second.asSet().size(), names.size());
  EXPECT_TRUE(peer->ping());
}

TEST_F(XPC, TheClientRefusesWhatTheExtensionWouldAndGoesOn) {
  auto listener = listen();
  auto peer = client();
  Value deep = nullptr;
  for (int i = 0; i < 40; ++i) deep = Value::array({deep});
  EXPECT_THROW(peer->addHostname(deep), ClientError);
  EXPECT_TRUE(peer->ping());
  EXPECT_TRUE(exported().received.get().empty());
}

// Each ends its own connection, in the way that belongs to it, is never delivered, and harms no other.
TEST_F(XPC, WhatAPeerDoesEndsItsConnectionAlone) {
  auto listener = listen();
  auto bystander = client();
  std::string open = bootstrap_message(0);
  std::string add = call_message(1, kAddHostnameMethod, [](auto call) {
    auto params = call.getParams().getContent().template initAs<control::OrvaneSECommunication::AddHostnameParams>();
    params.initHostname().setString("x");
  });
  std::string bomb = call_message(1, kAddHostnameMethod, [](auto call) {
    auto params = call.getParams().getContent().template initAs<control::OrvaneSECommunication::AddHostnameParams>();
    make_bomb(params.initHostname(), 20'000'000);
  });
  std::string capabilities = call_message(1, kAddHostnameMethod, [](auto call) { call.getParams().initCapTable(1); });
  std::string redirected =
      call_message(1, kAddHostnameMethod, [](auto call) { call.getSendResultsTo().setYourself(); });
  std::string wild = add;
  wild[wild.size() - 13] = 0x7f;  // the pointer to the string, which is the last word, leads far out
  std::string unfinished = open;
  for (uint32_t i = 1; i <= 1024; ++i) unfinished += call_message(i, kGetChangesCountMethod);
  capnp::MallocMessageBuilder abort, resolve;
  abort.initRoot<capnp::rpc::Message>().initAbort();
  resolve.initRoot<capnp::rpc::Message>().initResolve();

  struct {
    const char* what;
    std::string sent;
    const char* end;
  } cases[] = {
      {"nothing", "", "invalidated"},
      {"a library's farewell", bytes_of(abort), "invalidated"},
      {"half a frame", open.substr(0, 5), "interrupted"},
      {"half a table of segments", std::string("\7\0\0\0\1\0\0\0\1\0\0\0", 12), "interrupted"},
      {"half a message", open.substr(0, open.size() - 1), "interrupted"},
      {"noise", std::string(100, '\xa5'), "interrupted"},
      {"too many segments", std::string("\xff\xff\0\0\0\0\0\0", 8), "interrupted"},
      {"more segments than a number holds", std::string("\xff\xff\xff\xff\0\0\0\0", 8), "interrupted"},
      {"too large a message", std::string("\0\0\0\0\0\0\0\2", 8), "interrupted"},
      {"no message at all", std::string("\0\0\0\0\0\0\0\0", 8), "interrupted"},
      {"a wild pointer", open + wild, "interrupted"},
      {"a bomb", open + bomb, "interrupted"},
      {"capabilities", open + capabilities, "interrupted"},
      {"a reply that is to be kept", open + redirected, "interrupted"},
      {"a question asked twice", open + open, "interrupted"},
      {"an unknown question's end", open + finish_message(9), "interrupted"},
      {"a message for servers", open + bytes_of(resolve), "interrupted"},
      {"calls without end", unfinished, "interrupted"},
  };
  size_t count = 0;
  for (const auto& row : cases) {
    Descriptor peer = connected();
    send(peer, row.sent);
    shutdown(peer.get(), SHUT_WR);
    ++count;
    EXPECT_TRUE(delegate_->ends.await([&](const Ends& ends) { return ends.size() == count && ends.back() == row.end; }))
        << row.what << ": not " << row.end;
  }
  EXPECT_TRUE(exported().received.get().empty());
  EXPECT_TRUE(bystander->ping());
}

TEST_F(XPC, AResetIsAnInterruption) {
  auto listener = listen();
  Descriptor peer = connected();
  send(peer, bootstrap_message(0));
  pollfd readable{peer.get(), POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, 20000), 1);
  peer.reset();  // with the reply unread
  EXPECT_TRUE(awaitEnds({"interrupted"}));
}

TEST_F(XPC, AClientKilledInMidCallHarmsNobody) {
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  pid_t child = fork();
  if (child == 0) {
    char byte;
    if (read(go[0], &byte, 1) == 1) client()->start();
    _exit(1);
  }
  Watched<bool> killed;
  exported().whileStarting = [&] { killed.await([](bool is) { return is; }); };
  auto listener = listen();
  auto bystander = client();
  ASSERT_EQ(write(go[1], "", 1), 1);
  ASSERT_TRUE(awaitReceived(1));
  EXPECT_TRUE(bystander->ping());
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  killed.change([](bool& is) { is = true; });
  EXPECT_TRUE(awaitEnds({"invalidated"}));
  EXPECT_TRUE(bystander->ping());
  close(go[0]);
  close(go[1]);
}

size_t resident_bytes() {
  size_t pages = 0, ignored;
  std::ifstream("/proc/self/statm") >> ignored >> pages;
  return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Sends calls, each with its end, for as long as the other side reads.
uint32_t flood(const Descriptor& peer) {
  uint32_t question = 0;
  for (pollfd writable{peer.get(), POLLOUT, 0}; question < 2'000'000; writable.revents = 0) {
    std::string burst;
    for (int i = 0; i < 100; ++i) {
      ++question;
      burst += call_message(question, kGetChangesCountMethod) + finish_message(question);
    }
    for (size_t sent = 0; sent < burst.size();) {
      if (poll(&writable, 1, 500) != 1) return question;
      ssize_t more = ::send(peer.get(), burst.data() + sent, burst.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (more > 0) sent += static_cast<size_t>(more);
    }
  }
  return question;
}

TEST_F(XPC, UnreadRepliesStopTheReadingAndNotTheMemory) {
  auto listener = listen();
  auto bystander = client();
  Descriptor peer = connected();
  send(peer, bootstrap_message(0));
  size_t before = resident_bytes();
  uint32_t calls = flood(peer);
  EXPECT_LT(calls, 50'000u) << "the flood is read to its end";
  EXPECT_LT(resident_bytes(), before + (size_t{32} << 20));
  EXPECT_TRUE(bystander->ping());
  // Reading goes on with the replies: far more of them than were waiting come in.
  std::vector<char> buffer(1 << 20);
  timeval patience{1, 0};
  setsockopt(peer.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  size_t replies = 0;
  for (ssize_t got; (got = recv(peer.get(), buffer.data(), buffer.size(), 0)) > 0;) replies += static_cast<size_t>(got);
  EXPECT_GT(replies, size_t{calls - 100} * 32);
  peer.reset();
  EXPECT_TRUE(delegate_->ends.await([](const Ends& ends) { return ends.size() == 1; }));
}

TEST_F(XPC, RepliesAreNotLostWhenTheClientHasSaidItsLast) {
  auto listener = listen();
  Descriptor peer = connected();
  std::string sent = bootstrap_message(0);
  for (uint32_t i = 1; i <= 500; ++i) sent += call_message(i, kGetChangesCountMethod);
  send(peer, sent);
  shutdown(peer.get(), SHUT_WR);
  capnp::ReaderOptions options;
  size_t replies = 0;
  auto failure = kj::runCatchingExceptions([&] {
    kj::FdInputStream bytes(peer.get());
    kj::BufferedInputStreamWrapper stream(bytes);
    for (; stream.tryGetReadBuffer() != nullptr; ++replies) capnp::InputStreamMessageReader(stream, options);
  });
  EXPECT_EQ(replies, 501u);
}

TEST_F(XPC, AnEndBeforeTheHandlersAreSetIsReportedOnce) {
  delegate_->beforeHandlers = 100ms;
  auto listener = listen();
  connected().reset();
  EXPECT_TRUE(awaitEnds({"invalidated"}));
  send(connected(), "abc");
  EXPECT_TRUE(awaitEnds({"invalidated", "interrupted"}));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(delegate_->ends.get().size(), 2u);
}

TEST_F(XPC, WhatIsNotActivatedOrExportedGetsNoMessages) {
  for (std::atomic<bool> Delegate::*missing : {&Delegate::activates, &Delegate::exports}) {
    auto listener = listen();
    delegate_.get()->*missing = false;
    EXPECT_THROW(client()->start(), ClientError);
    delegate_.get()->*missing = true;
    EXPECT_TRUE(client()->ping());
  }
  EXPECT_TRUE(exported().received.get().empty());
}

TEST_F(XPC, ARefusedConnectionIsClosedEvenIfItWasActivated) {
  delegate_->accepts = false;
  auto listener = listen();
  Descriptor peer = connected();
  char byte;
  EXPECT_EQ(recv(peer.get(), &byte, 1, 0), 0);
  EXPECT_TRUE(awaitEnds({"invalidated"}));
}

TEST_F(XPC, TheConnectionBeyondTheLastWaitsUntilOneLeaves) {
  auto listener = listen();
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 64; ++i) {
    clients.push_back(client());
    ASSERT_TRUE(clients.back()->ping());
  }
  Watched<bool> answered;
  std::thread late([&] {
    client()->ping();
    answered.change([](bool& is) { is = true; });
  });
  EXPECT_FALSE(answered.await([](bool is) { return is; }, 200ms));
  clients.pop_back();
  EXPECT_TRUE(answered.await([](bool is) { return is; }));
  late.join();
}

TEST_F(XPC, OnlyOneOfManyThatStartAtOnceListens) {
  std::vector<Ref<NSXPCListener>> listeners(8);
  std::vector<std::thread> threads;
  for (auto& listener : listeners) threads.emplace_back([&] { listener = listen(); });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(errors(), 7u);
  EXPECT_TRUE(client()->ping());
  struct stat status {};
  ASSERT_EQ(stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  listeners.clear();
  EXPECT_THROW(client(), ClientError);
}

TEST_F(XPC, ADeadSocketIsReplacedAndAnythingElseIsLeftAlone) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path().copy(address.sun_path, sizeof address.sun_path - 1);
  Descriptor other(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(other.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(other.get(), 1), 0);
  listen();
  EXPECT_EQ(errors(), 1u) << "somebody listens, though without the lock";
  other.reset();
  EXPECT_THROW(client(), ClientError);
  {
    auto listener = listen();
    EXPECT_TRUE(client()->ping());
  }
  folder_.write("service", "precious");
  listen();
  EXPECT_EQ(errors(), 1u) << "a file is in the way";
  EXPECT_EQ(std::filesystem::file_size(path()), 8u);
}

TEST_F(XPC, ANameThatCannotBeASocketsListensNowhere) {
  Value names[] = {nullptr,
                   Value::number(7),
                   Value::string(""),
                   Value::string("."),
                   Value::string(".."),
                   Value::string("a/b"),
                   Value::string(std::string(150, 'x')),
                   Value::string(std::string_view("a\0b", 3))};
  for (const Value& name : names) {
    listen(name);
    EXPECT_EQ(errors(), 1u) << name.description();
    EXPECT_TRUE(std::filesystem::is_empty(folder_.path())) << name.description();
  }
  setenv("RUNTIME_DIRECTORY", "/nowhere/at/all", 1);
  listen();
  EXPECT_EQ(errors(), 1u);
}

TEST_F(XPC, AClientFailsInWordsWhenTheExtensionIsGone) {
  EXPECT_THROW(connect_client({.service = "no such service", .socket = ""}), ClientError);
  EXPECT_THROW(connect_client({.service = "a/b", .socket = ""}), ClientError);
  EXPECT_THROW(connect_client({.service = "", .socket = std::string(200, '/')}), ClientError);
  auto listener = listen();
  auto peer = client();
  EXPECT_TRUE(peer->ping());
  listener = nullptr;
  try {
    peer->ping();
    FAIL() << "a ping without an extension";
  } catch (const ClientError& error) {
    EXPECT_NE(std::string(error.what()).find(path()), std::string::npos) << error.what();
  }
}

TEST_F(XPC, TheClientLeavesSIGPIPEAsItWas) {
  auto listener = listen();
  ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
  client();
  struct sigaction now {};
  sigaction(SIGPIPE, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_DFL);
}

}  // namespace
}  // namespace orvane
