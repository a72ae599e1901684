#include <algorithm>
#include <cstring>

#include "platform/Bundle.h"
#include "platform/Clock.h"
#include "platform/PropertyList.h"
#include "platform/ReadStream.h"
#include "platform/StandIn.h"

namespace orvane {

using stand_in::files;

ORVANE_STAND_IN_COUNTED(struct, Bundle, std::string)
ORVANE_STAND_IN_COUNTED(struct, ReadStream, std::string)
ORVANE_STAND_IN_COUNTED(struct, Data, std::string)

Bundle* bundle_get_main() {
  static Bundle* const bundle = new Bundle;
  return bundle;
}

Ref<Bundle> bundle_create(const std::string& url) {
  files.bundleURL = url;
  return files.fails == "bundle" ? nullptr : Ref<Bundle>::adopt(new Bundle);
}

Value bundle_get_information(const Bundle*, std::string_view key) {
  const Value* value = files.information.find(key);
  return value == nullptr ? Value() : *value;
}

std::optional<std::string> bundle_copy_resource_url(const Bundle*, std::string_view name, std::string_view type) {
  if (files.fails == "resource") return std::nullopt;
  return "file:///" + std::string(name) + "." + std::string(type);
}

Ref<ReadStream> read_stream_create_with_file(const std::string& url) {
  files.resourceURL = url;
  return files.fails == "stream" ? nullptr : Ref<ReadStream>::adopt(new ReadStream);
}

bool read_stream_open(ReadStream*) { return files.fails != "open"; }

const uint8_t* read_stream_get_buffer(ReadStream*, int64_t maxBytesToRead, int64_t* numBytesRead) {
  if (!files.offersBuffer) return nullptr;
  auto size = static_cast<int64_t>(files.content.size());
  *numBytesRead = maxBytesToRead == 0 ? size : std::min(size, maxBytesToRead);
  return reinterpret_cast<const uint8_t*>(files.content.data());
}

int64_t read_stream_read(ReadStream*, uint8_t* buffer, int64_t bufferLength) {
  stand_in::trace("read " + std::to_string(bufferLength));
  if (files.fails == "read") return -1;
  auto count = std::min(static_cast<int64_t>(files.content.size()), bufferLength);
  std::memcpy(buffer, files.content.data(), static_cast<size_t>(count));
  return count;
}

void read_stream_close(ReadStream*) { stand_in::trace("close"); }

Ref<Data> data_create(const uint8_t* bytes, int64_t length) {
  if (files.fails == "data") return nullptr;
  return Ref<Data>::adopt(new Data({bytes, bytes + length}));
}

Value property_list_create_with_data(const Data* data, Ref<NSError>* error) {
  files.parsedLength = data->content.size();
  if (files.fails != "parse") return files.propertyList;
  *error = stand_in::error_named("line 3");
  return nullptr;
}

double absolute_time_get_current() { return files.now; }

}  // namespace orvane
