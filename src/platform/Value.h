#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace orvane {

// A value that a companion may send or a property list may contain. Immutable, 16 bytes. Copies share the content, and
// may be made and destroyed on any thread. Equality and hashes depend on the value: strings compare byte for byte;
// numbers compare by their numeric value, whatever type they were made from; a boolean equals no number.
class Value {
 public:
  // Null, not Nil: Objective-C defines Nil as a macro.
  enum class Kind : uint8_t { Null, Boolean, Number, String, Date, Data, Array, Set, Dictionary };

  struct Hash {
    size_t operator()(const Value& value) const noexcept { return value.hash(); }
  };
  using Array = std::vector<Value>;
  using Set = std::unordered_set<Value, Hash>;
  using Dictionary = std::unordered_map<Value, Value, Hash>;

  Value() noexcept = default;
  Value(std::nullptr_t) noexcept {}
  Value(const Value& other);
  Value(Value&& other) noexcept
      : kind_(std::exchange(other.kind_, Kind::Null)),
        form_(other.form_),
        borrowedLength_(other.borrowedLength_),
        stringHash_(std::exchange(other.stringHash_, 0)),
        payload_(other.payload_) {}
  ~Value() {
    if (kind_ >= Kind::String) releaseContent();
  }
  Value& operator=(Value other) noexcept {
    std::swap(kind_, other.kind_);
    std::swap(form_, other.form_);
    std::swap(borrowedLength_, other.borrowedLength_);
    std::swap(stringHash_, other.stringHash_);
    std::swap(payload_, other.payload_);
    return *this;
  }

  static Value boolean(bool value);
  static Value number(int64_t value);
  static Value unsignedNumber(uint64_t value);
  static Value real(double value);
  static Value string(std::string_view text);  // UTF-8
  static Value date(double absoluteTime);      // an absolute time (Clock.h)
  static Value data(std::span<const uint8_t> bytes);
  static Value array(Array elements);
  static Value set(Set members);
  static Value dictionary(Dictionary entries);

  // A string for a look-up. It refers to the caller's characters, so it is valid only while the characters exist. A
  // copy of the string owns its characters. No memory is allocated for a text of at most 65535 bytes.
  static Value borrowed(std::string_view text);

  Kind kind() const { return kind_; }
  bool isNil() const { return kind_ == Kind::Null; }
  bool isString() const { return kind_ == Kind::String; }
  bool isDate() const { return kind_ == Kind::Date; }
  bool isData() const { return kind_ == Kind::Data; }
  bool isArray() const { return kind_ == Kind::Array; }
  bool isSet() const { return kind_ == Kind::Set; }
  bool isDictionary() const { return kind_ == Kind::Dictionary; }

  // Each function returns the value's content. If the value is not of the kind that the function's name says, the
  // function returns false, 0 or an empty content. Views and references are valid as long as any copy of the value
  // exists.
  bool asBoolean() const;
  double asReal() const;  // of a number
  std::string_view asString() const;
  double asDate() const;
  std::span<const uint8_t> asData() const;
  const Array& asArray() const;
  const Set& asSet() const;
  const Dictionary& asDictionary() const;

  // The type that a number was made from. Only integers above INT64_MAX are Unsigned.
  enum class NumberForm : uint8_t { Signed, Unsigned, Real };
  NumberForm numberForm() const { return static_cast<NumberForm>(form_); }
  int64_t asSigned() const;     // of a Signed number
  uint64_t asUnsigned() const;  // of an Unsigned number

  // The value under a key of this dictionary. Null when the key is absent, and when this value is not a dictionary.
  const Value* find(std::string_view key) const;

  size_t hash() const noexcept { return kind_ == Kind::String ? stringHash_ : hashOfNonString(); }
  friend bool operator==(const Value& left, const Value& right) {
    // Strings with different hashes are different, so most comparisons need not read the strings' characters.
    if (left.kind_ != right.kind_ || left.stringHash_ != right.stringHash_) return false;
    return left.equals(right);
  }

  // The text for "%@". Nil gives "(null)".
  std::string description() const;

  // The approximate memory that the contents of all values in the process take, in bytes, including the values' slots
  // in tables.
  static size_t bytesInUse();

 private:
  // Every content begins with its reference count. kind_ tells the content's type.
  struct Counted;
  struct StringContent;
  struct DataContent;
  template <class Container>
  struct ContainerContent;
  union Payload {
    Counted* content = nullptr;
    bool boolean;
    int64_t integer;
    uint64_t natural;
    double real;
    const char* characters;  // of a borrowed string
  };

  explicit Value(Kind kind) noexcept : kind_(kind) {}
  void releaseContent() noexcept;
  size_t hashOfNonString() const noexcept;
  bool equals(const Value& other) const;
  bool isBorrowed() const { return form_ == kBorrowed; }
  template <class Container>
  static Value container(Kind kind, Container elements);
  template <class Container>
  const Container& contained(Kind kind) const;

  static constexpr uint8_t kBorrowed = 0xff;

  Kind kind_ = Kind::Null;
  uint8_t form_ = 0;             // a number's form, or kBorrowed
  uint16_t borrowedLength_ = 0;  // length of a borrowed string, in bytes
  uint32_t stringHash_ = 0;      // hash of a string, so that tables need not read its characters; else 0
  Payload payload_{};
};
static_assert(sizeof(Value) == 16);

// -1, 0 or 1 when the left date is earlier than, equal to or later than the right one. NaN compares as equal to every
// date.
int date_compare(const Value& left, const Value& right);

}  // namespace orvane
