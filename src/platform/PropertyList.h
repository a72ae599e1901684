#pragma once

#include <cstdint>

#include "platform/Foundation.h"
#include "platform/Ref.h"
#include "platform/Value.h"

namespace orvane {

// A copy of bytes. Counted.
struct Data;
void retain(const Data* data);
void release(const Data* data);

// Copies the bytes. Null when the object cannot be made.
Ref<Data> data_create(const uint8_t* bytes, int64_t length);

// Parses a property list, XML or binary, whole: a cut-off list is an error. The result is immutable. On failure the
// result is nil and *error holds the reason; on success *error is left as it was.
Value property_list_create_with_data(const Data* data, Ref<NSError>* error);

}  // namespace orvane
