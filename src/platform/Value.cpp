#include "platform/Value.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "platform/Clock.h"
#include "platform/KeyedHash.h"
#include "platform/StringBlocks.h"

namespace orvane {

struct Value::Counted {
  std::atomic<uint32_t> references{1};
};

// The header of a string's content. The characters follow the header in the same block of memory.
struct Value::StringContent : Counted {
  uint32_t isInBlock : 1 = 0;
  uint32_t length : 31 = 0;
  char* characters() { return reinterpret_cast<char*>(this + 1); }
};

struct Value::DataContent : Counted {
  std::vector<uint8_t> bytes;
};

template <class Container>
struct Value::ContainerContent : Counted {
  Container elements;
};

namespace {

// A block of StringBlocks. Its address is a multiple of kBytes, so that a string's address tells its block.
struct Block {
  static constexpr size_t kBytes = 256 << 10;
  static constexpr size_t kLargestString = kBytes / 16;

  std::atomic<uint32_t> users{1};  // the strings in the block, and the StringBlocks object that fills the block
  uint32_t used = sizeof(uint64_t);

  // Null if the system has no memory.
  static Block* make() {
    // Memory of twice the size contains an aligned block, wherever the system maps it. The rest is unmapped again.
    void* mapped = mmap(nullptr, 2 * kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANON, -1, 0);
    if (mapped == MAP_FAILED) return nullptr;
    const size_t before = (kBytes - reinterpret_cast<uintptr_t>(mapped) % kBytes) % kBytes;
    char* block = static_cast<char*>(mapped) + before;
    if (before > 0) munmap(mapped, before);
    munmap(block + kBytes, kBytes - before);
    return new (block) Block;
  }
  static Block* of(void* string) {
    return reinterpret_cast<Block*>(static_cast<char*>(string) - reinterpret_cast<uintptr_t>(string) % kBytes);
  }
  void release() {
    if (users.fetch_sub(1, std::memory_order_acq_rel) == 1) munmap(this, kBytes);
  }
};

// Whether this thread has a StringBlocks object, and the block that is being filled.
thread_local bool uses_blocks = false;
thread_local Block* filling = nullptr;

// Memory for a string in a block. Null if the string must have memory of its own.
void* allocate_in_block(size_t bytes) {
  if (!uses_blocks || bytes > Block::kLargestString) return nullptr;
  if (filling == nullptr || filling->used + bytes > Block::kBytes) {
    if (filling != nullptr) filling->release();
    filling = Block::make();
    if (filling == nullptr) return nullptr;
  }
  void* string = reinterpret_cast<char*>(filling) + filling->used;
  constexpr size_t kAlignment = alignof(uint32_t);
  filling->used += static_cast<uint32_t>((bytes + kAlignment - 1) / kAlignment * kAlignment);
  filling->users.fetch_add(1, std::memory_order_relaxed);
  return string;
}

std::atomic<size_t> content_bytes{0};

// The memory that a content takes besides its bytes: its header, what the allocator adds, and the value's slot in a
// half full table of the database (database/Table.h).
constexpr size_t kContentBytes = 96;
// The memory that a node of a hashed container takes besides the element in it.
constexpr size_t kNodeBytes = 32;

size_t element_bytes(const Value::Array& elements) { return elements.size() * sizeof(Value); }
size_t element_bytes(const Value::Set& members) { return members.size() * (sizeof(Value) + kNodeBytes); }
size_t element_bytes(const Value::Dictionary& entries) { return entries.size() * (2 * sizeof(Value) + kNodeBytes); }

void count_content(size_t bytes) { content_bytes.fetch_add(kContentBytes + bytes, std::memory_order_relaxed); }
void discount_content(size_t bytes) { content_bytes.fetch_sub(kContentBytes + bytes, std::memory_order_relaxed); }

uint32_t hash_of(std::string_view text) { return static_cast<uint32_t>(keyed_hash(text)); }

// Converts a real number to an integer. Returns false if the conversion would change the number's value.
bool exact_signed(double real, int64_t* integer) {
  if (!(real >= -9223372036854775808.0 && real < 9223372036854775808.0) || std::trunc(real) != real) return false;
  *integer = static_cast<int64_t>(real);
  return true;
}

bool exact_unsigned(double real, uint64_t* natural) {
  if (!(real >= 0 && real < 18446744073709551616.0) || std::trunc(real) != real) return false;
  *natural = static_cast<uint64_t>(real);
  return true;
}

// All NaNs are equal to each other, whatever their bits, and 0 is equal to -0. Equal numbers need equal hashes, so the
// hash of all these numbers is 0.
size_t hash_of(double real) {
  return std::isnan(real) || real == 0 ? 0 : keyed_hash({reinterpret_cast<const char*>(&real), sizeof real});
}

bool same_real(double left, double right) { return left == right || (std::isnan(left) && std::isnan(right)); }

void append_indent(std::string& text, size_t depth) { text.append(4 * depth, ' '); }

void append_description(std::string& text, const Value& value, size_t depth);

template <class Elements>
void append_elements(std::string& text, const Elements& elements, size_t depth) {
  text += "(\n";
  bool first = true;
  for (const Value& element : elements) {
    if (!std::exchange(first, false)) text += ",\n";
    append_indent(text, depth + 1);
    append_description(text, element, depth + 1);
  }
  if (!first) text += '\n';
  append_indent(text, depth);
  text += ')';
}

void append_number(std::string& text, const Value& value) {
  switch (value.numberForm()) {
    case Value::NumberForm::Signed:
      text += std::to_string(value.asSigned());
      break;
    case Value::NumberForm::Unsigned:
      text += std::to_string(value.asUnsigned());
      break;
    case Value::NumberForm::Real: {
      char digits[40];
      std::snprintf(digits, sizeof digits, "%.17g", value.asReal());
      text += digits;
      break;
    }
  }
}

void append_date(std::string& text, double absoluteTime) {
  constexpr std::chrono::seconds kReferenceInUnixTime = kAbsoluteTimeReference.time_since_epoch();
  double unixTime = std::floor(absoluteTime + static_cast<double>(kReferenceInUnixTime.count()));
  std::tm parts{};
  char buffer[64];
  // gmtime_r() fails if the year does not fit into an int. For such a date, the absolute time is printed as a number.
  if (!(std::fabs(unixTime) < 67767976233532799.0)) {
    std::snprintf(buffer, sizeof buffer, "%.17g", absoluteTime);
  } else {
    std::time_t seconds = static_cast<std::time_t>(unixTime);
    gmtime_r(&seconds, &parts);
    std::snprintf(buffer, sizeof buffer, "%04lld-%02d-%02d %02d:%02d:%02d +0000", parts.tm_year + 1900LL,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
  }
  text += buffer;
}

void append_data(std::string& text, std::span<const uint8_t> bytes) {
  constexpr size_t kShown = 24;
  text += "{length = " + std::to_string(bytes.size()) + ", bytes = 0x";
  for (size_t i = 0; i < bytes.size() && i < kShown; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
    text += digits;
  }
  text += bytes.size() > kShown ? "...}" : "}";
}

void append_description(std::string& text, const Value& value, size_t depth) {
  switch (value.kind()) {
    case Value::Kind::Null:
      text += "(null)";
      break;
    case Value::Kind::Boolean:
      text += value.asBoolean() ? '1' : '0';
      break;
    case Value::Kind::Number:
      append_number(text, value);
      break;
    case Value::Kind::String:
      text += value.asString();
      break;
    case Value::Kind::Date:
      append_date(text, value.asDate());
      break;
    case Value::Kind::Data:
      append_data(text, value.asData());
      break;
    case Value::Kind::Array:
      append_elements(text, value.asArray(), depth);
      break;
    case Value::Kind::Set:
      text += '{';
      append_elements(text, value.asSet(), depth);
      text += '}';
      break;
    case Value::Kind::Dictionary:
      text += "{\n";
      for (const auto& [key, entry] : value.asDictionary()) {
        append_indent(text, depth + 1);
        append_description(text, key, depth + 1);
        text += " = ";
        append_description(text, entry, depth + 1);
        text += ";\n";
      }
      append_indent(text, depth);
      text += '}';
      break;
  }
}

}  // namespace

StringBlocks::StringBlocks() { uses_blocks = true; }

StringBlocks::~StringBlocks() {
  uses_blocks = false;
  if (filling != nullptr) std::exchange(filling, nullptr)->release();
}

Value::Value(const Value& other)
    : kind_(other.kind_),
      form_(other.form_),
      borrowedLength_(other.borrowedLength_),
      stringHash_(other.stringHash_),
      payload_(other.payload_) {
  if (kind_ < Kind::String || kind_ == Kind::Date) return;
  if (isBorrowed()) {
    *this = string(other.asString());
  } else if (payload_.content != nullptr) {
    payload_.content->references.fetch_add(1, std::memory_order_relaxed);
  }
}

void Value::releaseContent() noexcept {
  if (kind_ == Kind::Date || isBorrowed()) return;
  Counted* content = payload_.content;
  if (content == nullptr) return;
  if (content->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  switch (kind_) {
    case Kind::String: {
      auto* text = static_cast<StringContent*>(content);
      discount_content(text->length);
      if (text->isInBlock != 0) {
        Block::of(text)->release();
      } else {
        ::operator delete(text);
      }
      break;
    }
    case Kind::Data:
      discount_content(asData().size());
      delete static_cast<DataContent*>(content);
      break;
    case Kind::Array:
      discount_content(element_bytes(asArray()));
      delete static_cast<ContainerContent<Array>*>(content);
      break;
    case Kind::Set:
      discount_content(element_bytes(asSet()));
      delete static_cast<ContainerContent<Set>*>(content);
      break;
    case Kind::Dictionary:
      discount_content(element_bytes(asDictionary()));
      delete static_cast<ContainerContent<Dictionary>*>(content);
      break;
    default:
      break;
  }
}

Value Value::boolean(bool value) {
  Value result(Kind::Boolean);
  result.payload_.boolean = value;
  return result;
}

Value Value::number(int64_t value) {
  Value result(Kind::Number);
  result.form_ = static_cast<uint8_t>(NumberForm::Signed);
  result.payload_.integer = value;
  return result;
}

Value Value::unsignedNumber(uint64_t value) {
  if (value <= INT64_MAX) return number(static_cast<int64_t>(value));
  Value result(Kind::Number);
  result.form_ = static_cast<uint8_t>(NumberForm::Unsigned);
  result.payload_.natural = value;
  return result;
}

Value Value::real(double value) {
  Value result(Kind::Number);
  result.form_ = static_cast<uint8_t>(NumberForm::Real);
  result.payload_.real = value;
  return result;
}

Value Value::string(std::string_view text) {
  constexpr size_t kLongest = INT32_MAX;
  if (text.size() > kLongest) throw std::bad_alloc();
  const size_t bytes = sizeof(StringContent) + text.size();
  void* inBlock = allocate_in_block(bytes);
  auto* content = new (inBlock != nullptr ? inBlock : ::operator new(bytes)) StringContent;
  content->isInBlock = inBlock != nullptr;
  content->length = static_cast<uint32_t>(text.size()) & kLongest;
  count_content(text.size());
  if (!text.empty()) std::memcpy(content->characters(), text.data(), text.size());
  Value result(Kind::String);
  result.stringHash_ = hash_of(text);
  result.payload_.content = content;
  return result;
}

Value Value::borrowed(std::string_view text) {
  if (text.size() > UINT16_MAX) return string(text);
  Value result(Kind::String);
  result.form_ = kBorrowed;
  result.borrowedLength_ = static_cast<uint16_t>(text.size());
  result.stringHash_ = hash_of(text);
  result.payload_.characters = text.data();
  return result;
}

Value Value::date(double absoluteTime) {
  Value result(Kind::Date);
  result.payload_.real = absoluteTime;
  return result;
}

Value Value::data(std::span<const uint8_t> bytes) {
  auto content = std::make_unique<DataContent>();
  content->bytes.assign(bytes.begin(), bytes.end());
  count_content(bytes.size());
  Value result(Kind::Data);
  result.payload_.content = content.release();
  return result;
}

template <class Container>
Value Value::container(Kind kind, Container elements) {
  Value result(kind);
  // An empty container allocates no content. That saves memory, because nearly every held host has an empty dictionary.
  if (elements.empty()) return result;
  auto* content = new ContainerContent<Container>;
  content->elements = std::move(elements);
  count_content(element_bytes(content->elements));
  result.payload_.content = content;
  return result;
}

Value Value::array(Array elements) { return container(Kind::Array, std::move(elements)); }
Value Value::set(Set members) { return container(Kind::Set, std::move(members)); }
Value Value::dictionary(Dictionary entries) { return container(Kind::Dictionary, std::move(entries)); }

bool Value::asBoolean() const { return kind_ == Kind::Boolean && payload_.boolean; }

int64_t Value::asSigned() const {
  return kind_ == Kind::Number && numberForm() == NumberForm::Signed ? payload_.integer : 0;
}

uint64_t Value::asUnsigned() const {
  return kind_ == Kind::Number && numberForm() == NumberForm::Unsigned ? payload_.natural : 0;
}

double Value::asReal() const {
  if (kind_ != Kind::Number) return 0;
  switch (numberForm()) {
    case NumberForm::Signed:
      return static_cast<double>(payload_.integer);
    case NumberForm::Unsigned:
      return static_cast<double>(payload_.natural);
    case NumberForm::Real:
      break;
  }
  return payload_.real;
}

std::string_view Value::asString() const {
  if (kind_ != Kind::String) return {};
  if (isBorrowed()) return {payload_.characters, borrowedLength_};
  auto* content = static_cast<StringContent*>(payload_.content);
  return {content->characters(), content->length};
}

double Value::asDate() const { return kind_ == Kind::Date ? payload_.real : 0; }

std::span<const uint8_t> Value::asData() const {
  if (kind_ != Kind::Data) return {};
  return static_cast<DataContent*>(payload_.content)->bytes;
}

template <class Container>
const Container& Value::contained(Kind kind) const {
  static const Container kEmpty;
  if (kind_ != kind || payload_.content == nullptr) return kEmpty;
  return static_cast<ContainerContent<Container>*>(payload_.content)->elements;
}

const Value::Array& Value::asArray() const { return contained<Array>(Kind::Array); }
const Value::Set& Value::asSet() const { return contained<Set>(Kind::Set); }
const Value::Dictionary& Value::asDictionary() const { return contained<Dictionary>(Kind::Dictionary); }

const Value* Value::find(std::string_view key) const {
  const Dictionary& entries = asDictionary();
  auto entry = entries.find(borrowed(key));
  return entry == entries.end() ? nullptr : &entry->second;
}

size_t Value::hashOfNonString() const noexcept {
  switch (kind_) {
    case Kind::Boolean:
      return payload_.boolean ? 1 : 0;
    case Kind::Number:
      // Equal numbers of different forms convert to the same real.
      return hash_of(asReal());
    case Kind::Date:
      return hash_of(payload_.real);
    case Kind::Data: {
      auto bytes = asData();
      return hash_of({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    }
    // The hash of a container depends on its size alone. Containers are rarely keys or members of sets, and hashing
    // their elements could recurse deeply.
    case Kind::Array:
      return asArray().size();
    case Kind::Set:
      return asSet().size();
    case Kind::Dictionary:
      return asDictionary().size();
    case Kind::String:
    case Kind::Null:
      break;
  }
  return 0;
}

bool Value::equals(const Value& right) const {
  const Value& left = *this;
  switch (left.kind_) {
    case Value::Kind::Null:
      return true;
    case Value::Kind::Boolean:
      return left.payload_.boolean == right.payload_.boolean;
    case Value::Kind::Number: {
      using Form = Value::NumberForm;
      Form form = left.numberForm();
      if (form != right.numberForm()) {
        // Every Unsigned number is above INT64_MAX, so a Signed one never equals it.
        if (form != Form::Real && right.numberForm() != Form::Real) return false;
        const Value& real = form == Form::Real ? left : right;
        const Value& whole = form == Form::Real ? right : left;
        int64_t integer = 0;
        uint64_t natural = 0;
        return whole.numberForm() == Form::Signed
                   ? exact_signed(real.payload_.real, &integer) && integer == whole.payload_.integer
                   : exact_unsigned(real.payload_.real, &natural) && natural == whole.payload_.natural;
      }
      return form == Form::Real ? same_real(left.payload_.real, right.payload_.real)
                                : left.payload_.natural == right.payload_.natural;
    }
    case Value::Kind::String:
      return left.asString() == right.asString();
    case Value::Kind::Date:
      return same_real(left.payload_.real, right.payload_.real);
    case Value::Kind::Data: {
      auto leftBytes = left.asData(), rightBytes = right.asData();
      return std::equal(leftBytes.begin(), leftBytes.end(), rightBytes.begin(), rightBytes.end());
    }
    case Value::Kind::Array:
      return left.asArray() == right.asArray();
    case Value::Kind::Set:
      return left.asSet() == right.asSet();
    case Value::Kind::Dictionary:
      return left.asDictionary() == right.asDictionary();
  }
  return false;
}

std::string Value::description() const {
  std::string text;
  append_description(text, *this, 0);
  return text;
}

size_t Value::bytesInUse() { return content_bytes.load(std::memory_order_relaxed); }

int date_compare(const Value& left, const Value& right) {
  double leftMoment = left.asDate(), rightMoment = right.asDate();
  if (leftMoment < rightMoment) return -1;
  return leftMoment > rightMoment ? 1 : 0;
}

}  // namespace orvane
