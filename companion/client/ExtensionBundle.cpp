#include "companion/client/ExtensionBundle.h"

#include <cstdint>

#include "platform/PropertyList.h"
#include "platform/files/Files.h"

namespace orvane {

std::string settings_file(const std::string& bundle) { return bundle + "/Contents/Info.plist"; }

Value extension_setting(const std::string& bundle, std::string_view key) {
  constexpr size_t kLimit = size_t{1} << 20;
  const auto text = read_file_start(settings_file(bundle), kLimit, Links::Follow).value_or("");
  const Ref<Data> data = data_create(reinterpret_cast<const uint8_t*>(text.data()), static_cast<int64_t>(text.size()));
  Ref<NSError> error;
  const Value information = data ? property_list_create_with_data(data.get(), &error) : Value();
  const Value* settings = information.find("NetworkExtension");
  const Value* setting = settings == nullptr ? nullptr : settings->find(key);
  return setting == nullptr ? Value() : *setting;
}

}  // namespace orvane
