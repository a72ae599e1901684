#pragma once

#include <cstdint>

#include "platform/Ref.h"

// The log's handles, levels and macros, common to all systems. Do not include this header: include Log.h, which
// includes it. Each system has a Log.h of its own, because on macOS the format must be passed as a literal directly to
// the system's log macro. The include path selects the system's Log.h.
namespace orvane {

// The levels Default, Info, Debug and Error. Log.h defines them.
enum class LogLevel : uint8_t;

// A handle: one category of one subsystem. Reference-counted.
class LogHandle;
void retain(const LogHandle* handle);
void release(const LogHandle* handle);
using os_log_t = Ref<LogHandle>;

os_log_t os_log_create(const char* subsystem, const char* category);

// The default log, which has no category. Its handle is never released.
const os_log_t& default_log();

// Whether the log keeps messages of a level. A null handle means the default log.
bool os_log_type_enabled(const os_log_t& log, LogLevel level);

}  // namespace orvane

// After the handle, the arguments are a literal format and its values; see Log.h.
#define ORVANE_LOG_DEFAULT(log, ...) ORVANE_LOG_AT(::orvane::LogLevel::Default, log, __VA_ARGS__)
#define ORVANE_LOG_INFO(log, ...) ORVANE_LOG_AT(::orvane::LogLevel::Info, log, __VA_ARGS__)
#define ORVANE_LOG_DEBUG(log, ...) ORVANE_LOG_AT(::orvane::LogLevel::Debug, log, __VA_ARGS__)
#define ORVANE_LOG_ERROR(log, ...) ORVANE_LOG_AT(::orvane::LogLevel::Error, log, __VA_ARGS__)
