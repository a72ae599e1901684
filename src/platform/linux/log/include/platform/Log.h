#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "platform/LogHandle.h"
#include "platform/linux/log/LogFormat.h"

// The system log. The arguments of a message are evaluated only when the level is enabled for the handle. LogFormat.h
// describes formats; a format that does not fit its arguments does not compile.
namespace orvane {

enum class LogLevel : uint8_t { Default, Info, Debug, Error };

namespace log_detail {

void write(const os_log_t& log, LogLevel level, std::string_view format, std::initializer_list<Argument> arguments);

template <class... T>
void write_arguments(const os_log_t& log, LogLevel level, std::string_view format, const T&... arguments) {
  write(log, level, format, {argument(arguments)...});
}

}  // namespace log_detail
}  // namespace orvane

#define ORVANE_LOG_AT(level, log, format, ...)                                                                   \
  do {                                                                                                           \
    const ::orvane::os_log_t& orvane_log_handle = (log);                                                         \
    if (::orvane::os_log_type_enabled(orvane_log_handle, level)) {                                               \
      static_assert(::orvane::log_detail::accepts(format, decltype(::orvane::log_detail::kinds(__VA_ARGS__)){}), \
                    "the arguments do not fit the format");                                                      \
      ::orvane::log_detail::write_arguments(orvane_log_handle, level, format __VA_OPT__(, ) __VA_ARGS__);        \
    }                                                                                                            \
  } while (false)
