#include "platform/Bundle.h"

#include <atomic>
#include <filesystem>
#include <mutex>
#include <utility>

#include "platform/PropertyList.h"
#include "platform/files/Files.h"
#include "platform/linux/base/FileURL.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

// Nil when the file cannot be read or is not a property list. Neither fault is logged here: every look-up of a key then
// finds nothing, and the callers that need a key report that it is missing.
Value read_information(const fs::path& path) {
  constexpr size_t kMaxLength = 1 << 20;
  const auto text = read_file_start(path, kMaxLength + 1, Links::Follow);
  if (!text || text->size() > kMaxLength) return nullptr;
  Ref<Data> data = data_create(reinterpret_cast<const uint8_t*>(text->data()), static_cast<int64_t>(text->size()));
  Ref<NSError> error;
  return data ? property_list_create_with_data(data.get(), &error) : Value();
}

}  // namespace

struct Bundle {
  explicit Bundle(fs::path bundleContents) : contents(std::move(bundleContents)) {}

  const Value& information() const {
    std::call_once(informationRead, [this] { informationDictionary = read_information(contents / "Info.plist"); });
    return informationDictionary;
  }

  mutable std::atomic<size_t> references{1};
  fs::path contents;
  mutable std::once_flag informationRead;
  mutable Value informationDictionary;
};

namespace {

// The bundle of the running program. The program must be in the bundle's folder Contents/Linux; null if it is
// elsewhere.
Bundle* find_main() {
  std::error_code error;
  fs::path folder = fs::read_symlink("/proc/self/exe", error).parent_path();
  if (error || folder.filename() != "Linux" || folder.parent_path().filename() != "Contents") return nullptr;
  return new Bundle(folder.parent_path());
}

}  // namespace

void retain(const Bundle* bundle) { bundle->references.fetch_add(1, std::memory_order_relaxed); }

void release(const Bundle* bundle) {
  if (bundle->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete bundle;
}

Bundle* bundle_get_main() {
  static Bundle* const bundle = find_main();
  return bundle;
}

Ref<Bundle> bundle_create(const std::string& url) {
  std::optional<std::string> path = path_of_file_url(url);
  if (!path) return nullptr;
  fs::path contents = fs::path(*path) / "Contents";
  std::error_code error;
  if (!fs::is_directory(contents, error)) return nullptr;
  return Ref<Bundle>::adopt(new Bundle(std::move(contents)));
}

Value bundle_get_information(const Bundle* bundle, std::string_view key) {
  if (bundle == nullptr) return nullptr;
  const Value* value = bundle->information().find(key);
  return value == nullptr ? Value() : *value;
}

std::optional<std::string> bundle_copy_resource_url(const Bundle* bundle, std::string_view name,
                                                    std::string_view type) {
  if (bundle == nullptr) return std::nullopt;
  std::string file(name);
  if (!type.empty()) file.append(".").append(type);
  if (file.empty() || file.find('/') != std::string::npos) return std::nullopt;
  fs::path path = bundle->contents / "Resources" / file;
  std::error_code error;
  if (!fs::exists(path, error) || fs::is_directory(path, error)) return std::nullopt;
  return file_url_of_path(path);
}

}  // namespace orvane
