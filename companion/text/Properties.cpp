#include "companion/text/Properties.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "companion/text/Input.h"
#include "platform/DateText.h"

namespace orvane {
namespace {

using Json = nlohmann::json;

// Limit on the nesting of properties. No real property is nested this deeply, and the extension's own limit is higher.
constexpr int kDeepest = 16;

Value convert(const Json& json, int depth);

Value convert_object(const Json& json, int depth) {
  if (json.size() == 1 && json.contains("$date") && json["$date"].is_string())
    return parse_time(json["$date"].get_ref<const std::string&>());
  Value::Dictionary entries;
  for (const auto& [key, entry] : json.items()) entries.emplace(Value::string(key), convert(entry, depth + 1));
  return Value::dictionary(std::move(entries));
}

Value convert_array(const Json& json, int depth) {
  Value::Array elements;
  for (const Json& element : json) elements.push_back(convert(element, depth + 1));
  return Value::array(std::move(elements));
}

Value convert(const Json& json, int depth) {
  if (depth > kDeepest) throw InputError("properties refused: nested too deeply: use at most 16 levels");
  switch (json.type()) {
    case Json::value_t::boolean:
      return Value::boolean(json.get<bool>());
    case Json::value_t::number_integer:
      return Value::number(json.get<int64_t>());
    case Json::value_t::number_unsigned:
      return Value::unsignedNumber(json.get<uint64_t>());
    case Json::value_t::number_float:
      return Value::real(json.get<double>());
    case Json::value_t::string:
      return Value::string(json.get_ref<const std::string&>());
    case Json::value_t::array:
      return convert_array(json, depth);
    case Json::value_t::object:
      return convert_object(json, depth);
    default:
      throw InputError("properties refused: null: leave out what has no value");
  }
}

Json parse_json(std::string_view text) {
  try {
    return Json::parse(text);
  } catch (const Json::parse_error& error) {
    throw InputError("properties refused: not JSON at byte " + std::to_string(error.byte) +
                     R"(: give an object, as in {"DontBlockUntil": "2030-01-31T18:00:00Z"})");
  } catch (const Json::out_of_range&) {
    throw InputError("properties refused: a number is too large: give one that a double can hold");
  }
}

}  // namespace

Value parse_time(std::string_view text) {
  const auto absoluteTime = absolute_time_of_text(text);
  if (!absoluteTime) throw InputError("not a time: " + in_quotes(text) + ": write it as in 2030-01-31T18:00:00Z");
  return Value::date(*absoluteTime);
}

Value parse_properties(std::string_view json) {
  Value converted = convert(parse_json(json), 0);
  if (!converted.isDictionary())
    throw InputError("properties refused: not an object: give {...}, or nothing to clear them");
  const Value* until = converted.find(kDontBlockUntil);
  if (until == nullptr || until->isDate()) return converted;
  if (!until->isString()) throw InputError("properties refused: \"DontBlockUntil\" is not a time: give a string");
  Value::Dictionary entries = converted.asDictionary();
  entries[Value::string(kDontBlockUntil)] = parse_time(until->asString());
  return Value::dictionary(std::move(entries));
}

}  // namespace orvane
