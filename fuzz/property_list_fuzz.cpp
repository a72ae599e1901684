#include <cstdint>

#include "platform/PropertyList.h"

using namespace orvane;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  Ref<Data> data = data_create(bytes, static_cast<int64_t>(size));
  Ref<NSError> error;
  Value value = property_list_create_with_data(data.get(), &error);
  if (value.isNil() != static_cast<bool>(error)) __builtin_trap();  // there must be a value or an error, and not both
  if (value.description().empty() && !value.isString()) __builtin_trap();
  if (error && error->description().empty()) __builtin_trap();
  return 0;
}
