#include "platform/linux/foundation/BinaryPropertyList.h"

#include <algorithm>
#include <bit>
#include <boost/locale/encoding_utf.hpp>
#include <cmath>
#include <string_view>
#include <utility>
#include <vector>

namespace orvane {
namespace {

class BinaryReader {
 public:
  BinaryReader(std::span<const uint8_t> bytes, size_t maxDepth) : bytes_(bytes), maxDepth_(maxDepth) {}

  Value read(std::string* fault) {
    const Object* root = readTrailer() ? visit(root_, 1) : nullptr;
    if (root != nullptr) return root->value;
    *fault = fault_;
    return nullptr;
  }

 private:
  static constexpr size_t kTrailerSize = 32;
  // Limit on the memory, in bytes, that the list would take if no object was shared. This memory is estimated: 64 bytes
  // and the object's content for each use of an object.
  static constexpr uint64_t kMaxCost = uint64_t{64} << 20;
  static constexpr uint64_t kCostOfUse = 64;

  enum class State : uint8_t { New, Open, Done };
  struct Object {
    State state = State::New;
    size_t height = 0;  // 0 for a simple value; for a container, 1 plus the greatest height of its elements
    uint64_t cost = 0;  // bytes that one use of the object costs, with everything that the object contains
    Value value;
  };

  bool readTrailer() {
    if (bytes_.size() < kBinaryPropertyListStart.size() + kTrailerSize) return fail("it is cut off"), false;
    const size_t trailer = bytes_.size() - kTrailerSize;
    offsetSize_ = bytes_[trailer + 6];
    referenceSize_ = bytes_[trailer + 7];
    const uint64_t count = integer(trailer + 8, 8);
    root_ = integer(trailer + 16, 8);
    table_ = integer(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8 ||
        table_ < kBinaryPropertyListStart.size() || table_ > trailer || count == 0 ||
        count > (trailer - table_) / offsetSize_) {
      return fail("its trailer is damaged"), false;
    }
    objects_.resize(count);
    return true;
  }

  // The big-endian number in the `size` bytes at offset `at`.
  uint64_t integer(size_t at, size_t size) const {
    uint64_t number = 0;
    for (size_t i = 0; i < size; ++i) number = number << 8 | bytes_[at + i];
    return number;
  }

  // Records the fault, unless an earlier fault is recorded, and returns nil.
  Value fail(const char* fault) {
    if (fault_ == nullptr) fault_ = fault;
    return nullptr;
  }

  // Whether `count` items of `size` bytes fit between `at` and the offset table.
  bool fits(size_t at, uint64_t count, size_t size) const { return at <= table_ && count <= (table_ - at) / size; }

  // Reads an object and everything that it refers to. A later visit to the object returns the result of the first
  // visit. `depth` is the number of objects on the path from the root object to this object, both included. Null after
  // a fault.
  const Object* visit(uint64_t index, size_t depth) {
    if (index >= objects_.size()) return fail("an object is missing"), nullptr;
    Object& object = objects_[index];
    if (object.state == State::Open) return fail("an object contains itself"), nullptr;
    if (depth + object.height > maxDepth_ + 1) return fail("it is nested too deeply"), nullptr;
    if (object.state == State::Done) return &object;
    const uint64_t at = integer(table_ + index * offsetSize_, offsetSize_);
    if (at < kBinaryPropertyListStart.size() || at >= table_) return fail("an object is missing"), nullptr;
    object.state = State::Open;
    object.cost = kCostOfUse;
    object.value = valueAt(at, object, depth);
    object.state = State::Done;
    if (object.cost > kMaxCost) fail("it is too large");
    return fault_ == nullptr ? &object : nullptr;
  }

  // The first byte of an object has the type in its high half and the size in its low half (15: the size follows as an
  // integer object).
  Value valueAt(size_t at, Object& object, size_t depth) {
    const uint8_t type = bytes_[at] >> 4, low = bytes_[at] & 0xf;
    ++at;
    switch (type) {
      case 0x0:
        return low == 8 || low == 9 ? Value::boolean(low == 9) : fail("an object is of an unknown type");
      case 0x1:
        return integerValue(at, low);
      case 0x2:
        return realValue(at, low);
      case 0x3:
        return dateValue(at, low);
      case 0x4:
      case 0x5:
      case 0x6:
        return bytesValue(at, type, low, object);
      case 0x8:  // a UID, by which an archive of objects (NSKeyedArchiver) refers to an object
        if (low > 3 || !fits(at, 1, low + 1)) return fail("an identifier is damaged");
        return Value::unsignedNumber(integer(at, low + 1));
      case 0xa:
      case 0xd:
        return containerValue(at, type == 0xd, low, object, depth);
      default:
        return fail("an object is of an unknown type");
    }
  }

  // An integer of 1, 2 or 4 bytes is unsigned, and an integer of 8 bytes is signed. An integer of 16 bytes holds an
  // unsigned number of 64 bits, which may be above INT64_MAX.
  Value integerValue(size_t at, uint8_t low) {
    if (low > 4 || !fits(at, 1, size_t{1} << low)) return fail("an integer is damaged");
    if (low < 4) return Value::number(static_cast<int64_t>(integer(at, size_t{1} << low)));
    if (integer(at, 8) != 0) return fail("an integer is too large");
    const uint64_t number = integer(at + 8, 8);
    return number <= INT64_MAX ? Value::number(static_cast<int64_t>(number)) : Value::unsignedNumber(number);
  }

  Value realValue(size_t at, uint8_t low) {
    if ((low != 2 && low != 3) || !fits(at, 1, size_t{1} << low)) return fail("a real number is damaged");
    return Value::real(low == 2 ? std::bit_cast<float>(static_cast<uint32_t>(integer(at, 4)))
                                : std::bit_cast<double>(integer(at, 8)));
  }

  Value dateValue(size_t at, uint8_t low) {
    const double absoluteTime = low == 3 && fits(at, 1, 8) ? std::bit_cast<double>(integer(at, 8)) : NAN;
    return std::isfinite(absoluteTime) ? Value::date(absoluteTime) : fail("a date is damaged");
  }

  // Reads data (type 4), a string in ASCII (5) or a string in UTF-16 (6).
  Value bytesValue(size_t at, uint8_t type, uint8_t low, Object& object) {
    uint64_t size = low;
    const size_t unitSize = type == 0x6 ? 2 : 1;
    if (!readSize(&at, &size) || !fits(at, size, unitSize)) return fail("a string or data is cut off");
    object.cost += 2 * size;
    const auto bytes = bytes_.subspan(at, size * unitSize);
    if (type == 0x4) return Value::data(bytes);
    if (type == 0x6) return stringOfUTF16(bytes);
    const bool isText = std::all_of(bytes.begin(), bytes.end(), [](uint8_t c) { return c > 0 && c < 0x80; });
    return isText ? Value::string({reinterpret_cast<const char*>(bytes.data()), size}) : fail("a string is damaged");
  }

  Value stringOfUTF16(std::span<const uint8_t> bytes) {
    std::u16string units;
    units.reserve(bytes.size() / 2);
    for (size_t i = 0; i < bytes.size(); i += 2) units += static_cast<char16_t>(bytes[i] << 8 | bytes[i + 1]);
    if (units.find(u'\0') != std::u16string::npos) return fail("a string is damaged");
    try {
      return Value::string(boost::locale::conv::utf_to_utf<char>(units, boost::locale::conv::stop));
    } catch (const boost::locale::conv::conversion_error&) {
      return fail("a string is damaged");
    }
  }

  // If *size is 15, replaces it by the number in the integer object at *at, and moves *at to the byte after that
  // object.
  bool readSize(size_t* at, uint64_t* size) const {
    if (*size != 0xf) return true;
    if (!fits(*at, 1, 1) || (bytes_[*at] >> 4) != 0x1 || (bytes_[*at] & 0xf) > 3) return false;
    const size_t length = size_t{1} << (bytes_[*at] & 0xf);
    ++*at;
    if (!fits(*at, 1, length)) return false;
    *size = integer(*at, length);
    *at += length;
    return true;
  }

  // The content of an array is a list of references to its elements. The content of a dictionary is a list of
  // references to all keys, followed by a list of references to their values.
  Value containerValue(size_t at, bool isDictionary, uint8_t low, Object& object, size_t depth) {
    uint64_t size = low;
    if (!readSize(&at, &size) || !fits(at, size, referenceSize_ * (isDictionary ? 2 : 1))) {
      return fail("an array or a dictionary is cut off");
    }
    object.height = 1;
    if (depth > maxDepth_) return fail("it is nested too deeply");
    Value::Array elements;
    for (uint64_t i = 0; i < (isDictionary ? 2 * size : size); ++i) {
      const Object* element = visit(integer(at + i * referenceSize_, referenceSize_), depth + 1);
      if (element == nullptr) return nullptr;
      if (isDictionary && i < size && !element->value.isString()) return fail("a key is not a string");
      object.height = std::max(object.height, element->height + 1);
      object.cost += element->cost;
      if (object.cost > kMaxCost) return fail("it is too large");
      elements.push_back(element->value);
    }
    if (!isDictionary) return Value::array(std::move(elements));
    Value::Dictionary entries;
    for (size_t i = 0; i < size; ++i) entries.emplace(std::move(elements[i]), std::move(elements[size + i]));
    return Value::dictionary(std::move(entries));
  }

  const std::span<const uint8_t> bytes_;
  const size_t maxDepth_;
  size_t offsetSize_ = 0, referenceSize_ = 0;  // in bytes
  size_t table_ = 0;                           // where the table of offsets begins
  uint64_t root_ = 0;
  std::vector<Object> objects_;
  const char* fault_ = nullptr;
};

}  // namespace

Value read_binary_property_list(std::span<const uint8_t> bytes, size_t maxDepth, std::string* fault) {
  return BinaryReader(bytes, maxDepth).read(fault);
}

}  // namespace orvane
