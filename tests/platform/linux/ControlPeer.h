#pragma once

#include <capnp/message.h>
#include <capnp/rpc.capnp.h>
#include <capnp/serialize.h>

#include <functional>
#include <string>

#include "ControlProtocol.capnp.h"

// Messages as a client of the control channel sends them, byte for byte, for tests that send others than a client
// would.
namespace orvane {

inline std::string bytes_of(capnp::MessageBuilder& message) {
  auto words = capnp::messageToFlatArray(message);
  return {reinterpret_cast<const char*>(words.begin()), words.asBytes().size()};
}

inline std::string bootstrap_message(uint32_t question) {
  capnp::MallocMessageBuilder message;
  message.initRoot<capnp::rpc::Message>().initBootstrap().setQuestionId(question);
  return bytes_of(message);
}

inline std::string finish_message(uint32_t question) {
  capnp::MallocMessageBuilder message;
  message.initRoot<capnp::rpc::Message>().initFinish().setQuestionId(question);
  return bytes_of(message);
}

// A call of a method on what the bootstrap with question 0 gave.
inline std::string call_message(uint32_t question, uint16_t method,
                                const std::function<void(capnp::rpc::Call::Builder)>& fill = nullptr) {
  capnp::MallocMessageBuilder message;
  auto call = message.initRoot<capnp::rpc::Message>().initCall();
  call.setQuestionId(question);
  call.initTarget().initPromisedAnswer().setQuestionId(0);
  call.setInterfaceId(capnp::typeId<control::OrvaneSECommunication>());
  call.setMethodId(method);
  call.initParams();
  if (fill) fill(call);
  return bytes_of(message);
}

inline constexpr uint16_t kStartMethod = 2, kAddHostnameMethod = 7, kGetChangesCountMethod = 11;

// An array of so many elements that take no room in the message.
inline void make_bomb(control::Value::Builder value, uint32_t elements) {
  value.initArray(1);
  capnp::AnyStruct::Builder(kj::mv(value)).getPointerSection()[0].initAsListOfAnyStruct(0, 0, elements);
}

}  // namespace orvane
