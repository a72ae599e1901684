#pragma once

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

}  // namespace orvane
