#pragma once

#include "platform/Foundation.h"
#include "platform/Value.h"

@class NSError;
@class NSURL;

// Foundation's own objects in our classes. All errors and URLs on this system are made here.
namespace orvane {

// Null for nil.
Ref<NSError> error_of(::NSError* error);
Ref<NSURL> url_of(::NSURL* url);

// The object itself that the error was made of; nil for null. Lives as long as the error does.
::NSError* foundation_error(const Ref<NSError>& error);

}  // namespace orvane
