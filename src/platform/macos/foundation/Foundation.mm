#include "platform/macos/foundation/Foundation.h"

#import <Foundation/Foundation.h>

#include "platform/macos/base/Retained.h"
#include "platform/macos/base/Values.h"

namespace orvane {
namespace {

class SystemError final : public NSError {
 public:
  explicit SystemError(::NSError* error) : error_(error) {}
  std::string description() const override { return text_of([error_.get() description]); }
  std::string localizedDescription() const override { return text_of([error_.get() localizedDescription]); }
  ::NSError* object() const { return error_.get(); }

 private:
  Retained<::NSError> error_;
};

class SystemURL final : public NSURL {
 public:
  explicit SystemURL(::NSURL* url) : url_(url) {}
  std::string absoluteString() const override { return text_of([url_.get() absoluteString]); }
  ::NSURL* object() const { return url_.get(); }

 private:
  Retained<::NSURL> url_;
};

class SystemURLComponents final : public NSURLComponents {
 public:
  explicit SystemURLComponents(::NSURLComponents* components) : components_(components) {}
  std::optional<std::string> host() const override {
    ::NSString* host = [components_.get() host];
    if (host == nil) return std::nullopt;
    return text_of(host);
  }

 private:
  Retained<::NSURLComponents> components_;
};

}  // namespace

Ref<NSError> error_of(::NSError* error) { return error == nil ? nullptr : Ref<NSError>::adopt(new SystemError(error)); }

Ref<NSURL> url_of(::NSURL* url) { return url == nil ? nullptr : Ref<NSURL>::adopt(new SystemURL(url)); }

::NSError* foundation_error(const Ref<NSError>& error) {
  return error ? static_cast<const SystemError*>(error.get())->object() : nil;
}

Ref<NSURLComponents> NSURLComponents::initWithURL(const NSURL& url, bool resolvingAgainstBaseURL) {
  ::NSURL* object = static_cast<const SystemURL&>(url).object();
  ::NSURLComponents* components = [[[::NSURLComponents alloc] initWithURL:object
                                                  resolvingAgainstBaseURL:resolvingAgainstBaseURL] autorelease];
  return components == nil ? nullptr : Ref<NSURLComponents>::adopt(new SystemURLComponents(components));
}

int64_t integerValue(const std::string& string) { return [foundation_string(string) integerValue]; }

}  // namespace orvane
