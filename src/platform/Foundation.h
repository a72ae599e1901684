#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Object.h"

namespace orvane {

// An error of the platform, as it is handed to completion handlers and printed by "%@".
class NSError : public NSObject {
 public:
  virtual std::string description() const = 0;
  virtual std::string localizedDescription() const = 0;
};

// A URL as the platform gave it.
class NSURL : public NSObject {
 public:
  virtual std::string absoluteString() const = 0;
};

// The parts of a URL (RFC 3986).
class NSURLComponents : public NSObject {
 public:
  // Null when the URL cannot be taken apart.
  static Ref<NSURLComponents> initWithURL(const NSURL& url, bool resolvingAgainstBaseURL);

  // The host with percent-encoding removed, in the URL's own spelling; a literal IPv6 address keeps its brackets.
  // Nothing when the URL has no host. Whether an empty one is none is the system's to say; on Linux it is.
  virtual std::optional<std::string> host() const = 0;
};

// A string's number as the platform reads it: leading white space, an optional sign, decimal digits up to the first
// character that is none; 0 without digits; the nearest representable number when the digits give more.
int64_t integerValue(const std::string& string);

}  // namespace orvane
