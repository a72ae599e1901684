#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Object.h"

namespace orvane {

// An error that the platform reports. Completion handlers receive it, and "%@" logs it.
class NSError : public NSObject {
 public:
  virtual std::string description() const = 0;
  virtual std::string localizedDescription() const = 0;
};

// A URL that comes from the platform, such as the URL of a flow.
class NSURL : public NSObject {
 public:
  virtual std::string absoluteString() const = 0;
};

// The components of a URL (RFC 3986).
class NSURLComponents : public NSObject {
 public:
  // Null when the URL cannot be parsed.
  static Ref<NSURLComponents> initWithURL(const NSURL& url, bool resolvingAgainstBaseURL);

  // The host, with percent-encoding decoded; an IPv6 address keeps its brackets. Nothing when the URL has no host. On
  // Linux the host has the form of the list's names (names/HostName.h), and an empty host counts as no host. On macOS
  // the host has the URL's spelling, and may be the empty text.
  virtual std::optional<std::string> host() const = 0;
};

// The number at the start of a string: optional white space, an optional sign, decimal digits. Returns 0 if there are
// no digits, and the nearest int64_t if the number is out of range.
int64_t integerValue(const std::string& string);

}  // namespace orvane
