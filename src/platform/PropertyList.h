#pragma once

#include <cstdint>

#include "platform/Foundation.h"
#include "platform/Ref.h"
#include "platform/Value.h"

namespace orvane {

// A copy of bytes. Reference-counted.
struct Data;
void retain(const Data* data);
void release(const Data* data);

// Copies the bytes. Null when the object cannot be made.
Ref<Data> data_create(const uint8_t* bytes, int64_t length);

// Parses a complete property list, XML or binary; a truncated list is an error. Returns nil and sets *error on failure;
// leaves *error unchanged on success.
Value property_list_create_with_data(const Data* data, Ref<NSError>* error);

}  // namespace orvane
