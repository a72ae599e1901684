#pragma once

#include <cstdint>
#include <functional>

#include "platform/Object.h"
#include "platform/Value.h"
#include "platform/XPC.h"

namespace orvane {

// The protocol between companions and the extension: twelve messages, whose order and types are frozen
// (docs/compatibility.md). Arguments arrive as they were sent, so they may be nil, or of another type than the comments
// below say. Messages arrive on several threads at once. A function with a parameter `reply` calls `reply` exactly
// once, and then returns.
class OrvaneSECommunication : public NSObject {
 public:
  using BooleanReply = std::function<void(bool)>;
  using CountReply = std::function<void(uint64_t)>;

  static constexpr Protocol kProtocol{"OrvaneSECommunication"};

  virtual void pingWithReply(const BooleanReply& reply) = 0;
  virtual void getAppFilterStateWithReply(const BooleanReply& reply) = 0;
  virtual void start() = 0;
  virtual void stop() = 0;
  virtual void addApplicationIdentifier(const Value& identifier) = 0;                 // a string
  virtual void removeApplicationIdentifier(const Value& identifier) = 0;              // a string
  virtual void setApplicationIdentifiers(const Value& identifiers) = 0;               // an array
  virtual void addHostname(const Value& hostname) = 0;                                // a string
  virtual void removeHostname(const Value& hostname) = 0;                             // a string
  virtual void setHostnames(const Value& hostnames) = 0;                              // a set of strings
  virtual void setProperties(const Value& properties, const Value& forHostname) = 0;  // a dictionary, a string
  virtual void getChangesCount(const CountReply& reply) = 0;
};

}  // namespace orvane
