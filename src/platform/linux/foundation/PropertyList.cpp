#include "platform/PropertyList.h"

#include <plist/plist.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "platform/linux/base/Error.h"
#include "platform/linux/foundation/PropertyListCheck.h"

namespace orvane {

struct Data {
  mutable std::atomic<size_t> references{1};
  std::vector<uint8_t> bytes;
};

void retain(const Data* data) { data->references.fetch_add(1, std::memory_order_relaxed); }

void release(const Data* data) {
  if (data->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete data;
}

Ref<Data> data_create(const uint8_t* bytes, int64_t length) {
  if (length < 0 || (bytes == nullptr && length > 0)) return nullptr;
  try {
    auto data = std::make_unique<Data>();
    data->bytes.assign(bytes, bytes + length);
    return Ref<Data>::adopt(data.release());
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace {

struct NodeFree {
  void operator()(void* node) const { plist_free(node); }
};
struct Free {
  void operator()(void* memory) const { std::free(memory); }
};
using Node = std::unique_ptr<void, NodeFree>;

// libplist keeps an integer's 64 bits, and apart from them whether they are signed. What tells the two apart is
// comparison with a number that is signed.
Value number_of(plist_t node) {
  uint64_t bits = 0;
  plist_get_uint_val(node, &bits);
  if (bits <= INT64_MAX) return Value::number(static_cast<int64_t>(bits));
  Node isSigned(plist_new_uint(bits));
  bool negative = plist_compare_node_value(node, isSigned.get()) != 0;
  return negative ? Value::number(static_cast<int64_t>(bits)) : Value::unsignedNumber(bits);
}

Value date_of(plist_t node) {
  int32_t seconds = 0, microseconds = 0;
  plist_get_date_val(node, &seconds, &microseconds);
  // The microseconds lead away from zero, whichever way the seconds go.
  double fraction = microseconds / 1e6;
  return Value::date(seconds < 0 ? seconds - fraction : seconds + fraction);
}

Value data_of(plist_t node) {
  uint64_t length = 0;
  const char* bytes = plist_get_data_ptr(node, &length);
  return Value::data({reinterpret_cast<const uint8_t*>(bytes), bytes == nullptr ? 0 : length});
}

Value value_of(plist_t node);

Value array_of(plist_t node) {
  Value::Array elements;
  elements.reserve(plist_array_get_size(node));
  plist_array_iter iterator = nullptr;
  plist_array_new_iter(node, &iterator);
  std::unique_ptr<void, Free> owned(iterator);
  plist_t item = nullptr;
  for (plist_array_next_item(node, iterator, &item); item != nullptr; plist_array_next_item(node, iterator, &item)) {
    elements.push_back(value_of(item));
  }
  return Value::array(std::move(elements));
}

Value dictionary_of(plist_t node) {
  Value::Dictionary entries;
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(node, &iterator);
  std::unique_ptr<void, Free> owned(iterator);
  while (true) {
    char* key = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(node, iterator, &key, &item);
    std::unique_ptr<char, Free> ownedKey(key);
    if (item == nullptr) return Value::dictionary(std::move(entries));
    entries.emplace(Value::string(key), value_of(item));
  }
}

Value value_of(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return Value::boolean(value != 0);
    }
    case PLIST_UINT:
      return number_of(node);
    case PLIST_UID: {
      uint64_t value = 0;
      plist_get_uid_val(node, &value);
      return Value::unsignedNumber(value);
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return Value::real(value);
    }
    case PLIST_STRING: {
      uint64_t length = 0;
      const char* characters = plist_get_string_ptr(node, &length);
      return Value::string({characters, length});
    }
    case PLIST_DATE:
      return date_of(node);
    case PLIST_DATA:
      return data_of(node);
    case PLIST_ARRAY:
      return array_of(node);
    case PLIST_DICT:
      return dictionary_of(node);
    default:
      return nullptr;
  }
}

constexpr size_t kMaxLength = size_t{64} << 20;

// The list as libplist reads it, or why it is none.
Node parse(std::span<const uint8_t> bytes, std::string* fault) {
  if (bytes.empty()) *fault = "it is empty";
  if (bytes.size() > kMaxLength) *fault = "it is too long";
  if (!fault->empty()) return nullptr;
  const char* characters = reinterpret_cast<const char*>(bytes.data());
  auto length = static_cast<uint32_t>(bytes.size());
  bool binary = plist_is_binary(characters, length) != 0;
  if (auto found = binary ? fault_of_binary_list(bytes) : fault_of_xml_list(bytes)) {
    *fault = *std::move(found);
    return nullptr;
  }
  plist_t root = nullptr;
  (binary ? plist_from_bin : plist_from_xml)(characters, length, &root);
  if (root == nullptr) *fault = "it holds what no property list may";
  return Node(root);
}

}  // namespace

Value property_list_create_with_data(const Data* data, Ref<NSError>* error) {
  std::string fault;
  Node root = parse(data->bytes, &fault);
  if (root) return value_of(root.get());
  *error = error_create("The data is not a property list: " + fault);
  return nullptr;
}

}  // namespace orvane
