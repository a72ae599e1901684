#include "platform/Foundation.h"

#include <cstdlib>

#include "platform/StandIn.h"

namespace orvane {

namespace {

struct ScriptedError : NSError, stand_in::Counted {
  explicit ScriptedError(std::string message) : Counted("NSError"), text(std::move(message)) {}
  std::string description() const override { return text; }
  std::string localizedDescription() const override { return "localised " + text; }
  std::string text;
};

struct ScriptedURL : NSURL {
  explicit ScriptedURL(std::string address) : text(std::move(address)) {}
  std::string absoluteString() const override { return text; }
  std::string text;
};

// Takes the text between "//" and the next "/" as the host, which is enough for the tests' URLs.
struct ScriptedComponents : NSURLComponents {
  explicit ScriptedComponents(std::string address) : url(std::move(address)) {}
  std::optional<std::string> host() const override {
    const size_t start = url.find("//");
    if (start == std::string::npos) return std::nullopt;
    return url.substr(start + 2, url.find('/', start + 2) - start - 2);
  }
  std::string url;
};

}  // namespace

Ref<NSError> stand_in::error_named(const std::string& name) { return Ref<NSError>::adopt(new ScriptedError(name)); }
Ref<NSURL> stand_in::url_of(const std::string& text) { return Ref<NSURL>::adopt(new ScriptedURL(text)); }

Ref<NSURLComponents> NSURLComponents::initWithURL(const NSURL& url, bool) {
  return Ref<NSURLComponents>::adopt(new ScriptedComponents(url.absoluteString()));
}

int64_t integerValue(const std::string& string) { return std::strtoll(string.c_str(), nullptr, 10); }

}  // namespace orvane
