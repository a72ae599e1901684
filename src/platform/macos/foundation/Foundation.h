#pragma once

#include "platform/Foundation.h"
#include "platform/Value.h"

@class NSError;
@class NSURL;

// Wraps Foundation's errors and URLs in the platform's classes. On macOS, only error_of() and url_of() make NSError and
// NSURL objects.
namespace orvane {

// error_of() and url_of() return null for nil.
Ref<NSError> error_of(::NSError* error);
Ref<NSURL> url_of(::NSURL* url);

// The object that the error wraps; nil for null. Borrowed from the error.
::NSError* foundation_error(const Ref<NSError>& error);

}  // namespace orvane
