#include "database/db_browsers.h"

#include <memory>

#include "database/db_state.h"
#include "platform/Bundle.h"
#include "platform/PropertyList.h"
#include "platform/ReadStream.h"

namespace orvane {

namespace {

// The state of one search through the browser identifiers.
struct BrowserMatch {
  std::string_view identifier;
  bool found = false;
};

void match_browser_identifier(const Value& key, const Value& /*value*/, BrowserMatch* context) {
  if (context == nullptr || !key.isString() || context->found) return;
  // An empty entry matches nothing, as on macOS, where a search for an empty string fails.
  const std::string_view ending = key.asString();
  context->found = !ending.empty() && context->identifier.ends_with(ending);
}

// The caller holds db_mutex.
void add_to_browsers_identifiers(const Value& value) {
  if (!value.isString()) return;
  db_browsers->addIfAbsent(value, Value::dictionary({}));
}

// Reads an open stream as a property list. Nil after an error, which is logged.
Value read_property_list(ReadStream* stream) {
  // The file is read with one call, which returns at most 1024 bytes (docs/compatibility.md gives the reason). A longer
  // list is cut off after these bytes, so the parser rejects it. The limit does not apply to a stream that gives access
  // to its own buffer.
  constexpr int64_t kListLimit = 1024;
  std::unique_ptr<uint8_t[]> buffer;
  int64_t count = 0;
  const uint8_t* bytes = read_stream_get_buffer(stream, 0, &count);
  if (bytes == nullptr) {
    buffer = std::make_unique<uint8_t[]>(kListLimit);
    count = read_stream_read(stream, buffer.get(), kListLimit);
    if (count < 1) {
      buffer.reset();
      ORVANE_LOG_ERROR(db_log, "cannot read stream");
      return nullptr;
    }
    bytes = buffer.get();
  }
  Ref<Data> data = data_create(bytes, count);
  if (!data) {
    ORVANE_LOG_ERROR(db_log, "cannot create data");
    return nullptr;
  }
  Ref<NSError> error;
  Value list = property_list_create_with_data(data.get(), &error);
  if (error) ORVANE_LOG_ERROR(db_log, "error creating property list : %@", error);
  return list;
}

}  // namespace

Value load_browsers_id_file(const std::optional<std::string>& bundleURL) {
  Ref<Bundle> bundle;
  if (bundleURL) {
    bundle = bundle_create(*bundleURL);
    if (!bundle) {
      ORVANE_LOG_ERROR(db_log, "cannot create bundle (%@)", *bundleURL);
      return nullptr;
    }
  } else {
    bundle = Ref<Bundle>::retained(bundle_get_main());
  }
  const std::optional<std::string> file = bundle_copy_resource_url(bundle.get(), "Browsers", "plist");
  if (!file) {
    ORVANE_LOG_ERROR(db_log, "browsers file not found");
    return nullptr;
  }
  // The next two messages seem swapped, but their texts are frozen (docs/compatibility.md).
  Ref<ReadStream> stream = read_stream_create_with_file(*file);
  if (!stream) {
    ORVANE_LOG_ERROR(db_log, "cannot open file");
    return nullptr;
  }
  if (!read_stream_open(stream.get())) {
    ORVANE_LOG_ERROR(db_log, "cannot read file");
    return nullptr;  // a stream that did not open is not closed
  }
  Value list = read_property_list(stream.get());
  read_stream_close(stream.get());
  return list;
}

void load_browsers_id() {
  const Value list = load_browsers_id_file(std::nullopt);
  if (!list.isNil()) db_browser_set_from_plist(list);
}

void db_browser_set_from_plist(const Value& plist) {
  // The function does not return after this message. For a value that is not an array, asArray() returns an empty
  // array, so the message "empty plist file" follows.
  if (!plist.isArray()) ORVANE_LOG_ERROR(db_log, "bad plist format");
  if (plist.asArray().empty()) {
    ORVANE_LOG_DEBUG(db_log, "empty plist file");
    return;
  }
  {
    DatabaseLock lock;
    db_browsers->clear();
    for (const Value& element : plist.asArray()) add_to_browsers_identifiers(element);
  }
  ORVANE_LOG_DEBUG(db_log, "db_browser_set_from_plist: %@", plist);
  ORVANE_LOG_DEBUG(db_log, "db_browsers: %@", db_table_copy(db_browsers));
}

void db_browsers_set(const Value& identifiers) {
  {
    DatabaseLock lock;
    db_browsers->clear();
    for (const Value& member : identifiers.asSet()) add_to_browsers_identifiers(member);
  }
  ORVANE_LOG_DEBUG(db_log, "db_browsers_set: %@", identifiers);
}

void db_browser_add(const Value& identifier) {
  {
    DatabaseLock lock;
    add_to_browsers_identifiers(identifier);
  }
  ORVANE_LOG_DEBUG(db_log, "db_browser_add: %@", identifier);
}

void db_browser_remove(const Value& identifier) {
  {
    DatabaseLock lock;
    db_browsers->erase(identifier);
  }
  ORVANE_LOG_DEBUG(db_log, "db_browser_remove: %@", identifier);
}

bool db_is_browser(std::string_view identifier) {
  BrowserMatch match{identifier};
  {
    DatabaseLock lock;
    db_browsers->forEach([&](const Value& key, const Value& value) { match_browser_identifier(key, value, &match); });
  }
  ORVANE_LOG_DEBUG(db_log, "db_is_browser %@ : %d", identifier, static_cast<int>(match.found));
  return match.found;
}

}  // namespace orvane
