#include "platform/linux/control/ValueMessage.h"

#include <kj/exception.h>

#include <algorithm>
#include <cstring>

namespace orvane {
namespace {

constexpr uint64_t kBytesPerWord = sizeof(capnp::word);
// A value is two words of data and one pointer; an entry of a dictionary is two pointers to such values. What a pointer
// leads to begins with a word more where it is a list of structs, and is one pointer where it is a set's or a
// dictionary's struct.
constexpr uint64_t kValueWords = 3;
constexpr uint64_t kEntryWords = 2;

// Of elements of containers that are members of sets or keys: some milliseconds' work.
constexpr uint64_t kMaximumComparisons = 1 << 20;

uint64_t words_for_bytes(uint64_t bytes) { return (bytes + kBytesPerWord - 1) / kBytesPerWord; }

class Measurement {
 public:
  void add(const Value& value, unsigned nesting) {
    ++size_.elements;
    size_.words += kValueWords;
    switch (value.kind()) {
      case Value::Kind::String:
        size_.words += words_for_bytes(value.asString().size() + 1);
        break;
      case Value::Kind::Data:
        size_.words += words_for_bytes(value.asData().size());
        break;
      case Value::Kind::Array:
        addContainer(value.asArray(), nesting + 1);
        break;
      case Value::Kind::Set:
        addContainer(value.asSet(), nesting + 1);
        break;
      case Value::Kind::Dictionary:
        addContainer(value.asDictionary(), nesting + 1);
        break;
      default:
        break;
    }
  }

  const ValueSize& size() const { return size_; }

 private:
  template <class Container>
  void addContainer(const Container& container, unsigned nesting) {
    size_.nesting = std::max(size_.nesting, nesting);
    if (nesting > kMaximumNesting) return;
    size_.words += 2;
    for (const auto& element : container) addElement(element, nesting);
  }
  void addElement(const Value& element, unsigned nesting) { add(element, nesting); }
  void addElement(const std::pair<const Value, Value>& entry, unsigned nesting) {
    size_.words += kEntryWords;
    add(entry.first, nesting);
    add(entry.second, nesting);
  }

  ValueSize size_;
};

void write_number(const Value& value, control::Value::Builder builder) {
  switch (value.numberForm()) {
    case Value::NumberForm::Signed:
      builder.setSigned(value.asSigned());
      break;
    case Value::NumberForm::Unsigned:
      builder.setUnsigned(value.asUnsigned());
      break;
    case Value::NumberForm::Real:
      builder.setReal(value.asReal());
      break;
  }
}

template <class Elements>
void write_elements(const Elements& elements, capnp::List<control::Value>::Builder list) {
  capnp::uint index = 0;
  for (const Value& element : elements) write_value(element, list[index++]);
}

bool is_container(const Value& value) { return value.kind() >= Value::Kind::Array; }

// The bytes of UTF-8 sequences by their first byte's upper five bits: 0 for a byte that begins none (RFC 3629).
size_t sequence_length(uint8_t first) {
  if (first < 0x80) return 1;
  if (first < 0xc2) return 0;
  if (first < 0xe0) return 2;
  if (first < 0xf0) return 3;
  return first < 0xf5 ? 4 : 0;
}

bool is_utf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    uint8_t first = static_cast<uint8_t>(text[i]);
    size_t length = sequence_length(first);
    if (length == 0 || length > text.size() - i) return false;
    for (size_t k = 1; k < length; ++k) {
      if ((static_cast<uint8_t>(text[i + k]) & 0xc0) != 0x80) return false;
    }
    uint8_t second = length > 1 ? static_cast<uint8_t>(text[i + 1]) : 0;
    // Overlong forms, surrogates, and what lies beyond the last code point.
    if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second >= 0xa0)) return false;
    if ((first == 0xf0 && second < 0x90) || (first == 0xf4 && second >= 0x90)) return false;
    i += length;
  }
  return true;
}

// Converts one message's values. Fails by returning false, or by the exception of a malformed pointer.
class Conversion {
 public:
  explicit Conversion(uint64_t messageWords)
      : elements_(std::min(messageWords, kMaximumElements)), bytes_(messageWords * kBytesPerWord) {}

  bool read(control::Value::Reader reader, unsigned nesting, Value* value) {
    switch (reader.which()) {
      case control::Value::NIL:
        *value = nullptr;
        return true;
      case control::Value::BOOLEAN:
        *value = Value::boolean(reader.getBoolean());
        return true;
      case control::Value::SIGNED:
        *value = Value::number(reader.getSigned());
        return true;
      case control::Value::UNSIGNED:
        *value = Value::unsignedNumber(reader.getUnsigned());
        return true;
      case control::Value::REAL:
        *value = Value::real(reader.getReal());
        return true;
      case control::Value::DATE:
        *value = Value::date(reader.getDate());
        return true;
      case control::Value::STRING:
        return readString(reader.getString(), value);
      case control::Value::DATA:
        return readData(reader.getData(), value);
      case control::Value::ARRAY:
        return nesting < kMaximumNesting && readArray(reader.getArray(), nesting + 1, value);
      case control::Value::SET:
        return nesting < kMaximumNesting && readSet(reader.getSet().getMembers(), nesting + 1, value);
      case control::Value::DICTIONARY:
        return nesting < kMaximumNesting && readDictionary(reader.getDictionary().getEntries(), nesting + 1, value);
    }
    return false;  // a kind that a newer client knows
  }

 private:
  static bool charge(uint64_t amount, uint64_t* budget) {
    if (amount > *budget) return false;
    *budget -= amount;
    return true;
  }

  bool readString(capnp::Text::Reader text, Value* value) {
    std::string_view view(text.begin(), text.size());
    if (!charge(view.size(), &bytes_) || !is_utf8(view)) return false;
    *value = Value::string(view);
    return true;
  }

  bool readData(capnp::Data::Reader data, Value* value) {
    if (!charge(data.size(), &bytes_)) return false;
    *value = Value::data({data.begin(), data.size()});
    return true;
  }

  bool readArray(capnp::List<control::Value>::Reader list, unsigned nesting, Value* value) {
    if (!charge(list.size(), &elements_)) return false;
    Value::Array array(list.size());
    for (capnp::uint i = 0; i < list.size(); ++i) {
      if (!read(list[i], nesting, &array[i])) return false;
    }
    *value = Value::array(std::move(array));
    return true;
  }

  bool readSet(capnp::List<control::Value>::Reader list, unsigned nesting, Value* value) {
    if (!charge(list.size(), &elements_)) return false;
    Value::Set set;
    set.reserve(list.size());
    uint64_t containers = 0;
    for (control::Value::Reader reader : list) {
      Value member;
      if (!readKey(reader, nesting, &containers, &member)) return false;
      set.insert(std::move(member));
    }
    *value = Value::set(std::move(set));
    return true;
  }

  bool readDictionary(capnp::List<control::Dictionary::Entry>::Reader list, unsigned nesting, Value* value) {
    if (!charge(2 * uint64_t{list.size()}, &elements_)) return false;
    Value::Dictionary dictionary;
    dictionary.reserve(list.size());
    uint64_t containers = 0;
    for (control::Dictionary::Entry::Reader entry : list) {
      Value key, content;
      if (!readKey(entry.getKey(), nesting, &containers, &key)) return false;
      if (!read(entry.getValue(), nesting, &content)) return false;
      dictionary.emplace(std::move(key), std::move(content));
    }
    *value = Value::dictionary(std::move(dictionary));
    return true;
  }

  // Reads a member of a set or a key. Containers hash by their size alone, so each may be compared, whole, with every
  // container before it.
  bool readKey(control::Value::Reader reader, unsigned nesting, uint64_t* containers, Value* key) {
    uint64_t before = elements_;
    if (!read(reader, nesting, key)) return false;
    return !is_container(*key) || charge((*containers)++ * (1 + before - elements_), &comparisons_);
  }

  uint64_t elements_, bytes_;  // what may still be made
  uint64_t comparisons_ = kMaximumComparisons;
};

}  // namespace

ValueSize measure(const Value& value) {
  Measurement measurement;
  measurement.add(value, 0);
  return measurement.size();
}

ValueSize measure_string(size_t length) { return {kValueWords + words_for_bytes(length + 1), 1, 0}; }

void write_value(const Value& value, control::Value::Builder builder) {
  switch (value.kind()) {
    case Value::Kind::Nil:
      builder.setNil();
      break;
    case Value::Kind::Boolean:
      builder.setBoolean(value.asBoolean());
      break;
    case Value::Kind::Number:
      write_number(value, builder);
      break;
    case Value::Kind::String: {
      std::string_view text = value.asString();
      std::copy(text.begin(), text.end(), builder.initString(static_cast<capnp::uint>(text.size())).begin());
      break;
    }
    case Value::Kind::Date:
      builder.setDate(value.asDate());
      break;
    case Value::Kind::Data:
      builder.setData({value.asData().data(), value.asData().size()});
      break;
    case Value::Kind::Array:
      write_elements(value.asArray(), builder.initArray(static_cast<capnp::uint>(value.asArray().size())));
      break;
    case Value::Kind::Set:
      write_elements(value.asSet(), builder.initSet().initMembers(static_cast<capnp::uint>(value.asSet().size())));
      break;
    case Value::Kind::Dictionary: {
      auto entries = builder.initDictionary().initEntries(static_cast<capnp::uint>(value.asDictionary().size()));
      capnp::uint index = 0;
      for (const auto& [key, content] : value.asDictionary()) {
        auto entry = entries[index++];
        write_value(key, entry.initKey());
        write_value(content, entry.initValue());
      }
      break;
    }
  }
}

std::optional<Value> read_value(control::Value::Reader reader, uint64_t messageWords) {
  std::optional<Value> value;
  auto malformed = kj::runCatchingExceptions([&] {
    Value result;
    if (Conversion(messageWords).read(reader, 0, &result)) value = std::move(result);
  });
  return malformed == nullptr ? value : std::nullopt;
}

}  // namespace orvane
