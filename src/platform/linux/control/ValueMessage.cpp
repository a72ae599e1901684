#include "platform/linux/control/ValueMessage.h"

#include <kj/exception.h>

#include <algorithm>
#include <boost/locale/utf.hpp>
#include <string_view>
#include <utility>

namespace orvane {
namespace {

constexpr uint64_t kBytesPerWord = sizeof(capnp::word);
// Sizes in the encoding of ControlProtocol.capnp.
constexpr uint64_t kValueWords = 3;      // two words of data and one pointer
constexpr uint64_t kEntryWords = 2;      // pointers to the key and the value
constexpr uint64_t kContainerWords = 2;  // at most: a list's tag word, and the pointer of a Set or Dictionary

// Limit on the elements that are compared when containers are members of sets or keys of dictionaries. Comparing this
// many elements takes a few milliseconds at most.
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
    size_.words += kContainerWords;
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

bool is_utf8(std::string_view text) {
  // Most strings are host names in ASCII. To see that a string is ASCII is cheaper than to decode it.
  if (std::ranges::all_of(text, [](char byte) { return static_cast<unsigned char>(byte) < 0x80; })) return true;
  using Traits = boost::locale::utf::utf_traits<char>;
  const char* position = text.data();
  const char* end = position + text.size();
  while (position != end) {
    if (!boost::locale::utf::is_valid_codepoint(Traits::decode(position, end))) return false;
  }
  return true;
}

// Reads one message's values within the limits of read_value(). Returns false when a limit is exceeded or a string is
// not UTF-8; throws kj::Exception at a malformed pointer.
class ValueReader {
 public:
  explicit ValueReader(uint64_t messageWords)
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
    return false;  // a kind of value that only newer clients know
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

  // Reads a set member or a key. The hash of a container is its size alone, so inserting a container may compare it in
  // full with every container that was inserted before. This function charges the cost of these comparisons to
  // comparisons_. `containers`: how many containers were read before, as members of the same set or as keys of the same
  // dictionary.
  bool readKey(control::Value::Reader reader, unsigned nesting, uint64_t* containers, Value* key) {
    uint64_t before = elements_;
    if (!read(reader, nesting, key)) return false;
    return !is_container(*key) || charge((*containers)++ * (1 + before - elements_), &comparisons_);
  }

  // How many elements and bytes may still be read, and how many elements may still be compared.
  uint64_t elements_, bytes_;
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
    case Value::Kind::Null:
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
    if (ValueReader(messageWords).read(reader, 0, &result)) value = std::move(result);
  });
  return malformed == nullptr ? value : std::nullopt;
}

}  // namespace orvane
