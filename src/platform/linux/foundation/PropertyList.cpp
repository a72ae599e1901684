#include "platform/PropertyList.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/base/Error.h"
#include "platform/linux/foundation/BinaryPropertyList.h"
#include "platform/linux/foundation/XMLPropertyList.h"

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

Value property_list_create_with_data(const Data* data, Ref<NSError>* error) {
  constexpr size_t kMaxLength = size_t{64} << 20;
  constexpr size_t kMaxDepth = 64;
  const std::string_view text(reinterpret_cast<const char*>(data->bytes.data()), data->bytes.size());
  std::string fault;
  Value value;
  if (text.empty()) {
    fault = "it is empty";
  } else if (text.size() > kMaxLength) {
    fault = "it is too long";
  } else if (text.starts_with(kBinaryPropertyListStart)) {
    value = read_binary_property_list(data->bytes, kMaxDepth, &fault);
  } else {
    value = read_xml_property_list(data->bytes, kMaxDepth, &fault);
  }
  if (!fault.empty()) *error = error_create("The data is not a property list: " + fault);
  return value;
}

}  // namespace orvane
