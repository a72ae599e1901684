#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "companion/client/Client.h"
#include "service/OrvaneSECommunication.h"

namespace orvane {

// A control object that passes each message to note(), and replies with fixed values.
struct NotedController : OrvaneSECommunication {
  virtual void note(const std::string& message, const Value& value) = 0;

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
};

// Sends every message. Returns what a NotedController that receives the messages passes to note().
inline std::vector<std::pair<std::string, Value>> send_every_message(Client& client) {
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
