#pragma once

#include <cstdint>

#include "platform/Ref.h"

// What the log is on every system: handles, levels and the four macros that a message is written with. Log.h, chosen by
// include path, has the rest, as a system's log wants its formats where they stand.
namespace orvane {

// Default, Info, Debug or Error.
enum class LogLevel : uint8_t;

// A handle: one category of one subsystem. Counted.
class LogHandle;
void retain(const LogHandle* handle);
void release(const LogHandle* handle);
using os_log_t = Ref<LogHandle>;

os_log_t os_log_create(const char* subsystem, const char* category);

// The log without a category. Never released.
const os_log_t& default_log();

// Whether messages of a level are kept. A null handle is the default log.
bool os_log_type_enabled(const os_log_t& log, LogLevel level);

}  // namespace orvane

// A literal format and its arguments, see Log.h.
#define ORVANE_LOG_DEFAULT(log, ...) ORVANE_LOG_AT(::orvane::LogLevel::Default, log, __VA_ARGS__)
#define ORVANE_LOG_INFO(log, ...) ORVANE_LOG_AT(::orvane::LogLevel::Info, log, __VA_ARGS__)
#define ORVANE_LOG_DEBUG(log, ...) ORVANE_LOG_AT(::orvane::LogLevel::Debug, log, __VA_ARGS__)
#define ORVANE_LOG_ERROR(log, ...) ORVANE_LOG_AT(::orvane::LogLevel::Error, log, __VA_ARGS__)
