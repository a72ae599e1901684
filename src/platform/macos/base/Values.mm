#include "platform/macos/base/Values.h"

#import <Foundation/Foundation.h>

#include <cstring>
#include <utility>

#include "platform/macos/base/UTF16.h"

namespace orvane {
namespace {

static_assert(sizeof(unichar) == sizeof(char16_t));

id element_object(const Value& value) {
  id object = foundation_object(value);
  return object == nil ? [::NSNull null] : object;
}

::NSNumber* number_object(const Value& value) {
  switch (value.numberForm()) {
    case Value::NumberForm::Signed:
      return [::NSNumber numberWithLongLong:value.asSigned()];
    case Value::NumberForm::Unsigned:
      return [::NSNumber numberWithUnsignedLongLong:value.asUnsigned()];
    case Value::NumberForm::Real:
      break;
  }
  return [::NSNumber numberWithDouble:value.asReal()];
}

::NSArray* array_object(const Value::Array& elements) {
  ::NSMutableArray* array = [::NSMutableArray arrayWithCapacity:elements.size()];
  for (const Value& element : elements) [array addObject:element_object(element)];
  return array;
}

::NSSet* set_object(const Value::Set& members) {
  ::NSMutableSet* set = [::NSMutableSet setWithCapacity:members.size()];
  for (const Value& member : members) [set addObject:element_object(member)];
  return set;
}

::NSDictionary* dictionary_object(const Value::Dictionary& entries) {
  ::NSMutableDictionary* dictionary = [::NSMutableDictionary dictionaryWithCapacity:entries.size()];
  for (const auto& [key, value] : entries) [dictionary setObject:element_object(value) forKey:element_object(key)];
  return dictionary;
}

// Foundation has one object for YES and one for NO, so a number is a boolean if it is one of these two objects.
Value number_value(::NSNumber* number) {
  if (number == [::NSNumber numberWithBool:YES]) return Value::boolean(true);
  if (number == [::NSNumber numberWithBool:NO]) return Value::boolean(false);
  const char type = [number objCType][0];
  if (type == 'f' || type == 'd') return Value::real([number doubleValue]);
  if (std::strchr("CSILQ", type) != nullptr) return Value::unsignedNumber([number unsignedLongLongValue]);
  return Value::number([number longLongValue]);
}

Value value_at_depth(id object, int depth);

Value array_value(::NSArray* array, int depth) {
  Value::Array elements;
  elements.reserve([array count]);
  for (id element in array) elements.push_back(value_at_depth(element, depth));
  return Value::array(std::move(elements));
}

Value set_value(::NSSet* set, int depth) {
  Value::Set members;
  members.reserve([set count]);
  for (id member in set) members.insert(value_at_depth(member, depth));
  return Value::set(std::move(members));
}

Value dictionary_value(::NSDictionary* dictionary, int depth) {
  Value::Dictionary entries;
  entries.reserve([dictionary count]);
  for (id key in dictionary) {
    entries.insert_or_assign(value_at_depth(key, depth), value_at_depth([dictionary objectForKey:key], depth));
  }
  return Value::dictionary(std::move(entries));
}

bool is_kind(id object, Class kind) { return [object isKindOfClass:kind]; }

// `depth` counts the containers around the object.
Value value_at_depth(id object, int depth) {
  if (is_kind(object, [::NSString class])) return Value::string(text_of(object));
  if (is_kind(object, [::NSNumber class])) return number_value(object);
  if (is_kind(object, [::NSDate class])) return Value::date([object timeIntervalSinceReferenceDate]);
  if (is_kind(object, [::NSData class])) {
    return Value::data({static_cast<const uint8_t*>([object bytes]), [object length]});
  }
  // The depth is limited because peers choose how deep their messages nest, and the threads that serve the peers have
  // only half a megabyte of stack.
  if (depth == kMaxDepth) return nullptr;
  if (is_kind(object, [::NSArray class])) return array_value(object, depth + 1);
  if (is_kind(object, [::NSSet class])) return set_value(object, depth + 1);
  if (is_kind(object, [::NSDictionary class])) return dictionary_value(object, depth + 1);
  return nullptr;
}

}  // namespace

id foundation_object(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::Boolean:
      return [::NSNumber numberWithBool:value.asBoolean()];
    case Value::Kind::Number:
      return number_object(value);
    case Value::Kind::String:
      return foundation_string(value.asString());
    case Value::Kind::Date:
      return [::NSDate dateWithTimeIntervalSinceReferenceDate:value.asDate()];
    case Value::Kind::Data:
      return [::NSData dataWithBytes:value.asData().data() length:value.asData().size()];
    case Value::Kind::Array:
      return array_object(value.asArray());
    case Value::Kind::Set:
      return set_object(value.asSet());
    case Value::Kind::Dictionary:
      return dictionary_object(value.asDictionary());
    default:
      return nil;
  }
}

Value value_of(id object) { return value_at_depth(object, 0); }

::NSString* foundation_string(std::string_view text) {
  const std::u16string units = utf16_of(text);
  return [::NSString stringWithCharacters:reinterpret_cast<const unichar*>(units.data()) length:units.size()];
}

std::string text_of(::NSString* string) {
  std::u16string units([string length], u'\0');
  [string getCharacters:reinterpret_cast<unichar*>(units.data()) range:NSMakeRange(0, units.size())];
  return utf8_of(units);
}

}  // namespace orvane
