#include "platform/Foundation.h"

#include <cstdlib>

#include "platform/StandIn.h"

namespace orvane {

namespace {

struct ScriptedError : NSError {
  explicit ScriptedError(std::string words) : text(std::move(words)) { stand_in::born("NSError"); }
  ~ScriptedError() override { stand_in::died("NSError"); }
  std::string description() const override { return text; }
  std::string localizedDescription() const override { return "localised " + text; }
  std::string text;
};

struct ScriptedURL : NSURL {
  explicit ScriptedURL(std::string words) : text(std::move(words)) {}
  std::string absoluteString() const override { return text; }
  std::string text;
};

// What stands between "//" and the next "/"; no more than the tests' own URLs need.
struct ScriptedComponents : NSURLComponents {
  std::optional<std::string> host() const override {
    size_t start = url.find("//");
    if (start == std::string::npos) return std::nullopt;
    std::string found = url.substr(start + 2, url.find('/', start + 2) - start - 2);
    return found.empty() ? std::nullopt : std::optional(found);
  }
  std::string url;
};

}  // namespace

Ref<NSError> stand_in::error_named(const std::string& description) {
  return Ref<NSError>::adopt(new ScriptedError(description));
}

Ref<NSURL> stand_in::url_of(const std::string& absoluteString) {
  return Ref<NSURL>::adopt(new ScriptedURL(absoluteString));
}

Ref<NSURLComponents> NSURLComponents::initWithURL(const NSURL& url, bool) {
  auto components = Ref<ScriptedComponents>::adopt(new ScriptedComponents);
  components->url = url.absoluteString();
  return components;
}

int64_t integerValue(const std::string& string) { return std::strtoll(string.c_str(), nullptr, 10); }

}  // namespace orvane
