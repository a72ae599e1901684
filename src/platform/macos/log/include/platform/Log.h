#pragma once

#include <os/log.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Foundation.h"
#include "platform/LogHandle.h"
#include "platform/Object.h"
#include "platform/Value.h"

// The system log. A message is a literal format with these conversions of os_log(3):
//
//   %@   an object             %d   an int         %ld  a long
//   %lu  an unsigned long      %s   characters     %p   an address     %.8x  an unsigned int
//
// The log hides the text of %@ and %s unless the conversion is %{public}@ or %{public}s. The compiler checks the
// arguments against the format. The arguments are evaluated only if the level is enabled for the handle.
namespace orvane {

enum class LogLevel : uint8_t {
  Default = OS_LOG_TYPE_DEFAULT,
  Info = OS_LOG_TYPE_INFO,
  Debug = OS_LOG_TYPE_DEBUG,
  Error = OS_LOG_TYPE_ERROR,
};

namespace log_detail {

// The system's object behind a handle. For a null handle, the object of the default log. Never null.
void* native(const os_log_t& log);

// An argument in the form that the system's macro takes. Lives until the end of the logging statement.
template <class T>
class Plain {
 public:
  explicit Plain(T value) : value_(value) {}
  T get() const { return value_; }

 private:
  T value_;
};

class Object {
 public:
  explicit Object(const void* object) : object_(object) {}  // takes ownership; may be null
  ~Object();
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  const void* get() const { return object_; }

 private:
  const void* object_;
};

inline Plain<int> argument(int value) { return Plain(value); }
inline Plain<long> argument(long value) { return Plain(value); }
inline Plain<unsigned int> argument(unsigned int value) { return Plain(value); }
inline Plain<unsigned long> argument(unsigned long value) { return Plain(value); }
inline Plain<const char*> argument(const char* value) { return Plain(value); }
inline Plain<const void*> argument(const void* value) { return Plain(value); }
Object argument(const Value& value);
Object argument(std::string_view text);
Object argument(const std::string& text);
Object argument(const std::optional<std::string>& text);
Object argument(const Ref<NSError>& error);

}  // namespace log_detail
}  // namespace orvane

// ORVANE_LOG_MESSAGE(format, ...) stands for the format and up to three arguments, which are converted by argument().
#define ORVANE_LOG_1(format) format
#define ORVANE_LOG_2(format, a) format, ::orvane::log_detail::argument(a).get()
#define ORVANE_LOG_3(format, a, b) ORVANE_LOG_2(format, a), ::orvane::log_detail::argument(b).get()
#define ORVANE_LOG_4(format, a, b, c) ORVANE_LOG_3(format, a, b), ::orvane::log_detail::argument(c).get()
#define ORVANE_LOG_CHOOSE(format, a, b, c, chosen, ...) chosen
#define ORVANE_LOG_MESSAGE(...) \
  ORVANE_LOG_CHOOSE(__VA_ARGS__, ORVANE_LOG_4, ORVANE_LOG_3, ORVANE_LOG_2, ORVANE_LOG_1, )(__VA_ARGS__)
#define ORVANE_LOG_WRITE(...) os_log_with_type(__VA_ARGS__)

// The system's macro writes the message. The macro needs the format as a literal, and the system's own names in scope.
#define ORVANE_LOG_AT(level, log, ...)                                                                               \
  do {                                                                                                               \
    const ::orvane::os_log_t& orvane_log_handle = (log);                                                             \
    if (::orvane::os_log_type_enabled(orvane_log_handle, level)) {                                                   \
      using ::os_log_t;                                                                                              \
      using ::os_log_type_enabled;                                                                                   \
      using ::os_log_type_t;                                                                                         \
      ORVANE_LOG_WRITE((os_log_t)::orvane::log_detail::native(orvane_log_handle), static_cast<os_log_type_t>(level), \
                       ORVANE_LOG_MESSAGE(__VA_ARGS__));                                                             \
    }                                                                                                                \
  } while (false)
