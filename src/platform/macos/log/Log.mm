#include "platform/Log.h"

#import <Foundation/Foundation.h>

#include "platform/macos/base/Values.h"
#include "platform/macos/foundation/Foundation.h"

namespace {

// This function is outside of namespace orvane: the system's macro needs the system's os_log_t, and orvane has another
// type of that name.
void* default_handle() { return OS_LOG_DEFAULT; }

}  // namespace

namespace orvane {
namespace {

::os_log_t handle_of(const LogHandle* handle) { return reinterpret_cast<::os_log_t>(const_cast<LogHandle*>(handle)); }

os_log_t adopted(void* handle) { return os_log_t::adopt(static_cast<LogHandle*>(handle)); }

// A retained reference to the object that `make` returns. The function has its own autorelease pool, because some
// threads have no pool.
template <class Make>
const void* retained(Make make) {
  @autoreleasepool {
    return [make() retain];
  }
}

}  // namespace

void retain(const LogHandle* handle) { os_retain(handle_of(handle)); }
void release(const LogHandle* handle) { os_release(handle_of(handle)); }

os_log_t os_log_create(const char* subsystem, const char* category) {
  return adopted(::os_log_create(subsystem, category));
}

const os_log_t& default_log() {
  static const auto* log = new os_log_t(adopted(default_handle()));
  return *log;
}

bool os_log_type_enabled(const os_log_t& log, LogLevel level) {
  return ::os_log_type_enabled(static_cast<::os_log_t>(log_detail::native(log)), static_cast<os_log_type_t>(level));
}

namespace log_detail {

void* native(const os_log_t& log) { return log ? log.get() : default_handle(); }

Object::~Object() { [static_cast<id>(object_) release]; }

Object argument(const Value& value) {
  return Object(retained([&] { return foundation_object(value); }));
}

Object argument(std::string_view text) {
  return Object(retained([&] { return foundation_string(text); }));
}

Object argument(const std::string& text) { return argument(std::string_view(text)); }

Object argument(const std::optional<std::string>& text) {
  return text ? argument(std::string_view(*text)) : Object(nullptr);
}

Object argument(const Ref<NSError>& error) {
  return Object(retained([&] { return foundation_error(error); }));
}

}  // namespace log_detail
}  // namespace orvane
