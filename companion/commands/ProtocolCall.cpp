#include "companion/commands/ProtocolCall.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "companion/text/Input.h"
#include "companion/text/Properties.h"

namespace orvane {
namespace {

enum class Takes : uint8_t { Nothing, Text, ArrayOfTexts, SetOfTexts, PropertiesAndText };

struct Method {
  std::string_view name;
  Takes takes;
  std::string (*send)(Client& client, const Value& first, const Value& second);
};

std::string reply_text(bool reply) { return reply ? "yes" : "no"; }

// Calls a method that has one argument and no reply.
template <void (Client::*function)(const Value&)>
std::string send_one(Client& client, const Value& argument, const Value&) {
  (client.*function)(argument);
  return {};
}

template <void (Client::*function)()>
std::string send_bare(Client& client, const Value&, const Value&) {
  (client.*function)();
  return {};
}

constexpr Method kMethods[] = {
    {"pingWithReply", Takes::Nothing, [](auto& client, auto&, auto&) { return reply_text(client.ping()); }},
    {"getAppFilterStateWithReply", Takes::Nothing,
     [](auto& client, auto&, auto&) { return reply_text(client.appFilterState()); }},
    {"start", Takes::Nothing, send_bare<&Client::start>},
    {"stop", Takes::Nothing, send_bare<&Client::stop>},
    {"addApplicationIdentifier", Takes::Text, send_one<&Client::addApplicationIdentifier>},
    {"removeApplicationIdentifier", Takes::Text, send_one<&Client::removeApplicationIdentifier>},
    {"setApplicationIdentifiers", Takes::ArrayOfTexts, send_one<&Client::setApplicationIdentifiers>},
    {"addHostname", Takes::Text, send_one<&Client::addHostname>},
    {"removeHostname", Takes::Text, send_one<&Client::removeHostname>},
    {"setHostnames", Takes::SetOfTexts, send_one<&Client::setHostnames>},
    {"setProperties", Takes::PropertiesAndText,
     [](auto& client, auto& properties, auto& hostname) {
       client.setProperties(properties, hostname);
       return std::string();
     }},
    {"getChangesCount", Takes::Nothing,
     [](auto& client, auto&, auto&) { return std::to_string(client.changesCount()); }},
};

std::string_view argument_text(Takes takes) {
  switch (takes) {
    case Takes::Text:
      return " TEXT";
    case Takes::ArrayOfTexts:
    case Takes::SetOfTexts:
      return " [TEXT...]";
    case Takes::PropertiesAndText:
      return " JSON|null TEXT";
    case Takes::Nothing:
      break;
  }
  return "";
}

bool takes_as_many(Takes takes, size_t count) {
  switch (takes) {
    case Takes::Text:
      return count == 1;
    case Takes::ArrayOfTexts:
    case Takes::SetOfTexts:
      return true;
    case Takes::PropertiesAndText:
      return count == 2;
    case Takes::Nothing:
      break;
  }
  return count == 0;
}

std::pair<Value, Value> converted(Takes takes, const std::vector<std::string>& arguments) {
  switch (takes) {
    case Takes::Text:
      return {Value::string(arguments[0]), Value()};
    case Takes::ArrayOfTexts:
    case Takes::SetOfTexts: {
      Value::Array texts;
      for (const std::string& argument : arguments) texts.push_back(Value::string(argument));
      if (takes == Takes::SetOfTexts) return {Value::set(Value::Set(texts.begin(), texts.end())), Value()};
      return {Value::array(std::move(texts)), Value()};
    }
    case Takes::PropertiesAndText:
      return {arguments[0] == "null" ? Value() : parse_properties(arguments[0]), Value::string(arguments[1])};
    case Takes::Nothing:
      break;
  }
  return {};
}

}  // namespace

ProtocolCall prepare_call(const std::string& method, const std::vector<std::string>& arguments) {
  const Method* known =
      std::find_if(std::begin(kMethods), std::end(kMethods), [&](const Method& each) { return each.name == method; });
  if (known == std::end(kMethods))
    throw InputError("unknown method: " + in_quotes(method) + ": see orvanectl call --help");
  if (!takes_as_many(known->takes, arguments.size()))
    throw InputError("wrong arguments: " + method + ": give " + method + std::string(argument_text(known->takes)));
  auto [first, second] = converted(known->takes, arguments);
  return [send = known->send, first = first, second = second](Client& client) { return send(client, first, second); };
}

std::string describe_methods() {
  std::string text = "Methods:";
  for (const Method& method : kMethods) text.append("\n  ").append(method.name).append(argument_text(method.takes));
  return text;
}

}  // namespace orvane
