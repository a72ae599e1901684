#include "platform/linux/process/BrowserList.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <utility>

#include "platform/PropertyList.h"
#include "platform/files/Files.h"
#include "platform/linux/base/Paths.h"

namespace orvane {

bool BrowserList::recognises(std::string_view identifier) const {
  return std::any_of(endings.begin(), endings.end(),
                     [&](const std::string& ending) { return identifier.ends_with(ending); });
}

BrowserList read_browser_list(const std::string& path) {
  constexpr size_t kListLimit = 1024;
  BrowserList list;
  list.path = path;
  // Messages name the file that a user has to edit, not a link to it. The file may be missing.
  std::error_code error;
  std::string file = resolve_links(path);
  if (file.empty()) file = std::filesystem::read_symlink(path, error).string();
  if (file.starts_with('/')) list.path = std::move(file);
  auto read = read_file_start(list.path, kListLimit + 1, Links::Follow);
  if (!read) {
    list.fault = "cannot be read";
    return list;
  }
  std::string& text = *read;
  const bool isCut = text.size() > kListLimit;
  if (isCut) text.resize(kListLimit);  // as the extension does: it uses the list if only white space follows
  const Ref<Data> data = data_create(reinterpret_cast<const uint8_t*>(text.data()), static_cast<int64_t>(text.size()));
  Ref<NSError> fault;
  const Value value = data ? property_list_create_with_data(data.get(), &fault) : Value();
  if (!value.isArray()) {
    list.fault = isCut ? "has more than " + std::to_string(kListLimit) + " bytes; the extension reads no more"
                       : "is not a property list with an array";
    return list;
  }
  for (const Value& element : value.asArray()) {
    if (element.isString() && !element.asString().empty()) list.endings.emplace_back(element.asString());
  }
  if (list.endings.empty()) list.fault = "contains no browser";
  return list;
}

}  // namespace orvane
