#include <capnp/rpc.capnp.h>
#include <capnp/serialize.h>
#include <gtest/gtest.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <semaphore>
#include <thread>

#include "ControlProtocol.capnp.h"
#include "companion/client/CallTimeout.h"
#include "platform/StandIn.h"
#include "platform/linux/base/ListEdits.h"
#include "platform/linux/control/ListenerSocket.h"
#include "support/NotedController.h"
#include "support/Sockets.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

using namespace std::literals;

// The ends of connections, in order. A test waits until they are as expected. Thread-safe.
class Ends {
 public:
  void add(const std::string& end) {
    std::lock_guard lock(mutex_);
    all_.push_back(end);
  }
  std::vector<std::string> all() {
    std::lock_guard lock(mutex_);
    return all_;
  }
  bool await(const std::vector<std::string>& expected) {
    for (int i = 0; i < 100'000 && all() != expected; ++i) std::this_thread::sleep_for(1ms);
    return all() == expected;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> all_;
};

struct Delegate final : NotedDelegate {
  Ends ends;
  std::atomic<bool> handlersAreLate{false};

  bool shouldAcceptNewConnection(NSXPCListener& listener, NSXPCConnection& connection) override {
    NotedDelegate::shouldAcceptNewConnection(listener, connection);
    if (handlersAreLate) std::this_thread::sleep_for(20ms);
    connection.setInvalidationHandler([this] { ends.add("invalidated"); });
    connection.setInterruptionHandler([this] { ends.add("interrupted"); });
    return true;
  }
};

class XPC : public testing::Test {
 protected:
  XPC() {
    setenv("RUNTIME_DIRECTORY", folder_.path().c_str(), 1);
    stand_in::take_log();
    listener_ = listen();
    peer_ = client();
  }

  Ref<NSXPCListener> listen(const Value& name = Value::string("service")) {
    auto listener = NSXPCListener::initWithMachServiceName(name);
    listener->setDelegate(delegate_.get());
    listener->resume();
    return listener;
  }
  std::unique_ptr<Client> client() const { return connect_client({.service = "", .socket = path_}); }

  // A plain socket that is connected to the service.
  Peer connected() const {
    Peer peer(Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    sockaddr_un address{AF_UNIX, {}};
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(peer.socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return peer;
  }
  static auto errors() { return std::ranges::count(stand_in::take_log(), '!'); }

  TemporaryFolder folder_;
  std::string path_ = folder_.path() / "service";
  Ref<Delegate> delegate_ = Ref<Delegate>::adopt(new Delegate);
  NotedController& exported_ = *delegate_->controller;
  Ref<NSXPCListener> listener_;
  std::unique_ptr<Client> peer_;
};

std::string message_bytes(const std::function<void(capnp::rpc::Message::Builder)>& fill) {
  capnp::MallocMessageBuilder message;
  fill(message.initRoot<capnp::rpc::Message>());
  auto words = capnp::messageToFlatArray(message);
  return {reinterpret_cast<const char*>(words.begin()), words.asBytes().size()};
}

// A client's first message, which requests the exported object, and a call of a method of that object.
const std::string kOpen = message_bytes([](auto message) { message.initBootstrap().setQuestionId(0); });
std::string call_bytes(uint16_t method, const std::function<void(control::Value::Builder)>& fill) {
  return message_bytes([&](auto message) {
    auto call = message.initCall();
    call.setQuestionId(1);
    call.initTarget().initPromisedAnswer().setQuestionId(0);
    call.setInterfaceId(capnp::typeId<control::OrvaneSECommunication>());
    call.setMethodId(method);
    auto content = call.initParams().getContent();
    fill(content.template initAs<control::OrvaneSECommunication::AddHostnameParams>().initHostname());
  });
}

// Makes the value an array of elements that take no space in the message.
void make_bomb(control::Value::Builder value, uint32_t elements) {
  value.initArray(1);
  capnp::AnyStruct::Builder(kj::mv(value)).getPointerSection()[0].initAsListOfAnyStruct(0, 0, elements);
}

TEST_F(XPC, DeliversEveryMessageWithItsArguments) {
  auto expected = send_every_message(*peer_);
  std::vector<std::string> names(1'000'000);
  Value::Set million(names.size());
  for (size_t i = 0; i < names.size(); ++i) million.insert(Value::string(names[i] = std::to_string(i) + ".example"));
  peer_->setHostnames(names, nullptr);
  expected.emplace_back("set", Value::set(million));
  EXPECT_EQ(exported_.received(), expected);
}

TEST_F(XPC, ReportsEditsAfterTheyWereMade) {
  const Value name = Value::string("a.example");
  const struct {
    const char* edit;
    std::function<void()> make;
    bool all;
  } kCases[] = {
      {"add", [&] { peer_->addHostname(name); }, false},
      {"remove", [&] { peer_->removeHostname(name); }, false},
      {"properties", [&] { peer_->setProperties(nullptr, name); }, false},
      {"set", [&] { peer_->setHostnames(Value::set({name})); }, true},
      {"set applications", [&] { peer_->setApplicationIdentifiers(nullptr); }, true},
  };
  ListEdits::shared().take();
  for (const auto& c : kCases) {
    exported_.onMessage = [&] { EXPECT_TRUE(ListEdits::shared().take() == ListEdits::Edits()) << c.edit; };
    c.make();
    peer_->ping();  // its reply comes after the edit
    const std::vector<std::string> names(c.all ? 0 : 1, "a.example");
    EXPECT_TRUE(ListEdits::shared().take() == (ListEdits::Edits{c.all, names})) << c.edit;
  }
}

TEST_F(XPC, RejectsDeeplyNestedArgumentsInTheClient) {
  Value deep;
  for (int i = 0; i < 40; ++i) deep = Value::array({deep});
  EXPECT_THROW(peer_->addHostname(deep), ClientError);
  EXPECT_TRUE(peer_->ping()) << "the extension has ended the connection";
}

TEST_F(XPC, RefusesValuesBeyondItsMemory) {
  const Value name = Value::string("example.org");
  const std::vector<uint8_t> bytes(size_t{120} << 20);
  // The extension's side runs in the test's process and counts all values of the process. So it counts this value as
  // one that it stores.
  const Value large = Value::dictionary({{name, Value::data(bytes)}});
  EXPECT_THROW(peer_->setProperties(large, name), ClientError);
  peer_->setHostnames(Value::set({large.asDictionary().at(name)}));
  EXPECT_THROW(peer_->setProperties(large, name), ClientError);
  peer_->addHostname(name);
  Peer peer = connected();
  EXPECT_TRUE(peer.send(kOpen + call_bytes(9, [](auto value) { value.initData(size_t{128} << 20); })));
  peer.endSending();
  EXPECT_NE(peer.read().find("its message is larger"), std::string::npos);
  NotedController::Messages expected = {{"set", Value::set({large.asDictionary().at(name)})}, {"add", name}};
  EXPECT_EQ(exported_.received(), expected);
}

TEST_F(XPC, CarriesOutSmallCallsWhileOneLargeCallRunsAndAnotherWaits) {
  const std::vector<uint8_t> bytes(size_t{120} << 20);  // two such calls would exceed the limit
  const Value large = Value::set({Value::data(bytes)}), name = Value::string("a.example"), small = Value::set({name});
  std::binary_semaphore runs(0), mayEnd(0);
  std::atomic<bool> isFirst{true};
  exported_.onMessage = [&] {
    if (!isFirst.exchange(false)) return;
    runs.release();
    mayEnd.acquire();
  };
  auto setLarge = [&large](Client& client) { EXPECT_NO_THROW(client.setHostnames(large)); };
  std::thread running([&] { setLarge(*peer_); });
  runs.acquire();
  std::thread waiting([&] { setLarge(*client()); });
  std::this_thread::sleep_for(1s);
  auto other = client();
  EXPECT_NO_THROW(other->setHostnames(small));
  EXPECT_NO_THROW(other->addHostname(name));
  EXPECT_NO_THROW(other->setProperties(nullptr, name));
  NotedController::Messages expected = {{"set", small}, {"add", name}, {"properties", Value::array({nullptr, name})}};
  EXPECT_EQ(exported_.received(), expected);
  mayEnd.release();
  running.join();
  waiting.join();
  expected.insert(expected.end(), 2, {"set", large});
  EXPECT_EQ(exported_.received(), expected);
}

TEST_F(XPC, GivesAWaitingClientThePlaceOfTheLongestIdleOne) {
  EXPECT_TRUE(peer_->ping());
  std::vector<Peer> idle;
  idle.push_back(connected());
  // After this pause, idle[0] has been idle for longer than the other idle connections, in whatever order the extension
  // accepts those.
  std::this_thread::sleep_for(2s);
  // Messages of 256 MiB, of which only the segment tables arrive. The first one has all memory that a user may have, so
  // the one on the idle connection waits for memory.
  const std::string announced("\0\0\0\0\xff\xff\xff\1", 8);
  Peer arriving = connected();
  EXPECT_TRUE(arriving.send(announced));
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(idle.front().send(announced));
  while (idle.size() + 2 < kMaximumConnections) idle.push_back(connected());
  EXPECT_TRUE(peer_->ping());
  CallTimeout limit(200s);
  auto waiting = client();
  limit.watch(waiting->descriptor());
  EXPECT_NO_THROW(waiting->ping());
  char byte;
  EXPECT_EQ(recv(idle.front().socket.get(), &byte, 1, MSG_DONTWAIT), 0) << "the longest idle client is still connected";
  EXPECT_EQ(recv(arriving.socket.get(), &byte, 1, MSG_DONTWAIT), -1) << "a client that was not idle is disconnected";
  EXPECT_EQ(delegate_->ends.all().size(), 1u);
  EXPECT_TRUE(peer_->ping());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(delegate_->ends.await({"interrupted", "interrupted"}));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s) << "a client that sends nothing keeps the memory";
}

TEST_F(XPC, EndsItsConnectionsWithTheListener) {
  EXPECT_TRUE(peer_->ping());
  listener_ = nullptr;
  EXPECT_THROW(peer_->ping(), ClientError);
}

// Also checks that no part of a broken message is delivered, and that other connections stay open.
TEST_F(XPC, ReportsHowEachConnectionEnded) {
  std::string wild = call_bytes(7, [](auto value) { value.setString("x"); });
  // The last word is the string, and the word before it is a pointer to the string. Let the pointer lead outside the
  // message.
  wild[wild.size() - 13] = 0x7f;
  struct {
    const char* what;
    std::string sent;
    const char* end = "interrupted";
  } cases[] = {
      {"nothing", "", "invalidated"},
      {"an abort message", message_bytes([](auto message) { message.initAbort(); }), "invalidated"},
      {"half a frame", kOpen.substr(0, 5)},
      {"half a message", kOpen.substr(0, kOpen.size() - 1)},
      {"a segment count that overflows", std::string("\xff\xff\xff\xff\0\0\0\0", 8)},
      {"too large a message", std::string("\0\0\0\0\0\0\0\2", 8)},
      {"a wild pointer", kOpen + wild},
      {"a small bomb", kOpen + call_bytes(7, [](auto value) { make_bomb(value, 1000); })},
      {"a large bomb", kOpen + call_bytes(7, [](auto value) { make_bomb(value, (1u << 29) - 1); })},
      {"a question asked twice", kOpen + kOpen},
  };
  std::vector<std::string> expected;
  for (bool late : {false, true}) {
    delegate_->handlersAreLate = late;
    for (const auto& row : cases) {
      Peer peer = connected();
      EXPECT_TRUE(peer.send(row.sent));
      peer.endSending();
      expected.emplace_back(row.end);
      ASSERT_TRUE(delegate_->ends.await(expected)) << row.what << ": not " << row.end;
    }
  }
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(delegate_->ends.all(), expected) << "an end was reported twice";
  EXPECT_TRUE(exported_.received().empty());
  EXPECT_TRUE(peer_->ping());
}

TEST_F(XPC, StopsReadingWhileRepliesAreUnread) {
  Peer peer = connected();
  timeval patience{1, 0};
  setsockopt(peer.socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  std::string call = call_bytes(11, [](auto) {}), burst;
  call += message_bytes([](auto message) { message.initFinish().setQuestionId(1); });
  for (int i = 0; i < 100; ++i) burst += call;
  size_t calls = 0;
  EXPECT_TRUE(peer.send(kOpen));
  while (calls < 2'000'000 && peer.send(burst)) calls += 100;
  EXPECT_LT(calls, 50'000u);
  peer.socket.reset();  // the kernel resets a connection with unread replies
  EXPECT_TRUE(delegate_->ends.await({"interrupted"}));
}

TEST_F(XPC, RejectsASecondListener) {
  listen();
  EXPECT_EQ(errors(), 1);
  EXPECT_TRUE(client()->ping());
}

TEST_F(XPC, RejectsServiceNamesThatAreNoFileNames) {
  for (const Value& name : {Value::string(""), Value::string("."), Value::string(".."), Value::string("a/b"),
                            Value::string("a\0b"sv), Value::string(std::string(150, 'x')), Value()}) {
    listen(name);
    EXPECT_EQ(errors(), 1) << name.description();
  }
}

}  // namespace
}  // namespace orvane
