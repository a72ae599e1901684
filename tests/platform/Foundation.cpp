#include "platform/Foundation.h"

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

}  // namespace

Ref<NSError> stand_in::error_named(const std::string& name) { return Ref<NSError>::adopt(new ScriptedError(name)); }
Ref<NSURL> stand_in::url_of(const std::string& text) { return Ref<NSURL>::adopt(new ScriptedURL(text)); }

}  // namespace orvane
