#include "companion/text/Properties.h"

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "companion/text/Input.h"

namespace orvane {
namespace {

using Json = nlohmann::json;

// Far deeper than anyone's properties; what is deeper would not be taken by the extension either.
constexpr int kDeepest = 16;

// Reads a text from its start to its end.
class TimeReader {
 public:
  explicit TimeReader(std::string_view text) : rest_(text) {}

  // A number of exactly `digits` digits, at most `largest`.
  int number(int digits, int largest) {
    int result = 0;
    for (int i = 0; i < digits; ++i) result = 10 * result + (digit() ? take() - '0' : fail());
    return result <= largest ? result : fail();
  }
  void expect(std::string_view characters) {
    if (!accept(characters)) fail();
  }
  // Skips one character when it is one of these.
  bool accept(std::string_view characters) {
    bool found = !rest_.empty() && characters.find(rest_.front()) != std::string_view::npos;
    if (found) rest_.remove_prefix(1);
    return found;
  }
  // The digits after a decimal point, at least one.
  double fraction() {
    double result = 0, weight = 1;
    if (!digit()) fail();
    while (digit()) result += (weight /= 10) * (take() - '0');
    return result;
  }
  bool negative() {
    if (accept("-")) return true;
    expect("+");
    return false;
  }
  bool atEnd() const { return rest_.empty(); }
  bool valid() const { return valid_; }

 private:
  bool digit() const { return !rest_.empty() && rest_.front() >= '0' && rest_.front() <= '9'; }
  char take() {
    char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }
  int fail() {
    valid_ = false;
    return 0;
  }

  std::string_view rest_;
  bool valid_ = true;
};

// RFC 3339, section 5.6. A second of 60 is a leap second: the moment after it, as no clock here counts it.
bool read_time(std::string_view text, double* absoluteTime) {
  using namespace std::chrono;
  TimeReader reader(text);
  int year = reader.number(4, 9999);
  reader.expect("-");
  int month = reader.number(2, 12);
  reader.expect("-");
  int day = reader.number(2, 31);
  reader.expect("Tt ");
  int hour = reader.number(2, 23);
  reader.expect(":");
  int minute = reader.number(2, 59);
  reader.expect(":");
  int second = reader.number(2, 60);
  double fraction = reader.accept(".") ? reader.fraction() : 0;
  int offset = 0;  // minutes east
  if (!reader.accept("Zz")) {
    int sign = reader.negative() ? -1 : 1;
    int hours = reader.number(2, 23);
    reader.expect(":");
    offset = sign * (60 * hours + reader.number(2, 59));
  }
  year_month_day date{std::chrono::year(year), std::chrono::month(month), std::chrono::day(day)};
  if (!reader.valid() || !reader.atEnd() || !date.ok()) return false;
  auto whole =
      seconds(sys_days(date) - kAbsoluteTimeReference) + hours(hour) + minutes(minute - offset) + seconds(second);
  *absoluteTime = static_cast<double>(whole.count()) + fraction;
  return true;
}

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
  double absoluteTime = 0;
  if (!read_time(text, &absoluteTime))
    throw InputError("not a time: " + in_quotes(text) + ": write it as in 2030-01-31T18:00:00Z");
  return Value::date(absoluteTime);
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
