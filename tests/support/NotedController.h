#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "companion/client/Client.h"
#include "platform/XPC.h"
#include "service/OrvaneSECommunication.h"

namespace orvane {

// A control object that records each message without a reply, and answers all others with fixed values. Thread-safe.
class NotedController final : public OrvaneSECommunication {
 public:
  using Messages = std::vector<std::pair<std::string, Value>>;

  std::function<void()> onMessage = [] {};  // called before each message is recorded
  Messages received() {
    std::lock_guard lock(mutex_);
    return received_;
  }

  void pingWithReply(const BooleanReply& reply) override { reply(true); }
  void getAppFilterStateWithReply(const BooleanReply& reply) override { reply(false); }
  void start() override { note("start", nullptr); }
  void stop() override { note("stop", nullptr); }
  void addApplicationIdentifier(const Value& value) override { note("add application", value); }
  void removeApplicationIdentifier(const Value& value) override { note("remove application", value); }
  void setApplicationIdentifiers(const Value& values) override { note("set applications", values); }
  void addHostname(const Value& value) override { note("add", value); }
  void removeHostname(const Value& value) override { note("remove", value); }
  void setHostnames(const Value& values) override { note("set", values); }
  void setProperties(const Value& properties, const Value& forHostname) override {
    note("properties", Value::array({properties, forHostname}));
  }
  void getChangesCount(const CountReply& reply) override { reply(UINT64_MAX); }

 private:
  void note(const std::string& message, const Value& value) {
    onMessage();
    std::lock_guard lock(mutex_);
    received_.emplace_back(message, value);
  }

  std::mutex mutex_;
  Messages received_;
};

// Gives each connection the controller.
struct NotedDelegate : NSXPCListenerDelegate {
  Ref<NotedController> controller = Ref<NotedController>::adopt(new NotedController);

  bool shouldAcceptNewConnection(NSXPCListener&, NSXPCConnection& connection) override {
    connection.setExportedInterface(NSXPCInterface::interfaceWithProtocol(OrvaneSECommunication::kProtocol));
    connection.setExportedObject(controller.get());
    connection.activate();
    return true;
  }
};

// Sends every message. Returns what a NotedController that receives the messages records.
inline NotedController::Messages send_every_message(Client& client) {
  const Value text = Value::string("a"), set = Value::set({text}), array = Value::array({text, Value::string("b")});
  const Value properties = Value::dictionary({{text, Value::array({Value::date(5), Value::boolean(true)})}});
  EXPECT_TRUE(client.ping() && !client.appFilterState());
  EXPECT_EQ(client.changesCount(), UINT64_MAX);
  client.start();
  client.stop();
  client.addApplicationIdentifier(text);
  client.removeApplicationIdentifier(nullptr);
  client.setApplicationIdentifiers(array);
  client.addHostname(text);
  client.addHostnames(std::vector<std::string>{"a", "b"});
  client.removeHostname(text);
  client.removeHostnames(std::vector<std::string>{"b"});
  client.setHostnames(set);
  client.setProperties(properties, text);
  return {{"start", nullptr},
          {"stop", nullptr},
          {"add application", text},
          {"remove application", nullptr},
          {"set applications", array},
          {"add", text},
          {"add", text},
          {"add", Value::string("b")},
          {"remove", text},
          {"remove", Value::string("b")},
          {"set", set},
          {"properties", Value::array({properties, text})}};
}

}  // namespace orvane
