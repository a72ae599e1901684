#include "platform/gnustep/Harness.h"

#include "platform/StandIn.h"
#include "platform/macos/base/Values.h"
#include "platform/macos/foundation/Foundation.h"

#undef NDEBUG  // otherwise NSDebug.h hides the functions that count objects; the library always has them
#include <Block_private.h>
#import <Foundation/Foundation.h>
#import <Foundation/NSDebug.h>
#include <dlfcn.h>

#include <map>

namespace orvane {

// Makes a Foundation object for an error that the stand-in reports, because the macOS code under test needs one.
Ref<NSError> stand_in::error_named(const std::string& name) {
  id words = @{NSLocalizedDescriptionKey : foundation_string("localised " + name)};
  return error_of([::NSError errorWithDomain:foundation_string(name) code:1 userInfo:words]);
}

namespace {

// The live objects of each class. Those of an Objective-C class count only if they were made after counting began.
using Counts = std::map<std::string, int>;

Counts live_objects() {
  Counts counts = {{"orvane::NSObject", stand_in::aliveObjects}};
  const Class* classes = GSDebugAllocationClassList();
  for (const Class* each = classes; *each != nullptr; ++each)
    counts[class_getName(*each)] = GSDebugAllocationCount(*each);
  NSZoneFree(NSDefaultMallocZone(), const_cast<Class*>(classes));
  for (const char* kind : {"LogHandle", "SecCode", "SecStaticCode", "CodeURL", "Dictionary", "Number"}) {
    counts[std::string("orvane::") + kind] = stand_in::alive(kind);
  }
  return counts;
}

}  // namespace

std::string leaked_objects(const std::function<void()>& body, bool afterDrain) {
  Counts before, after;
  GSDebugAllocationActive(YES);
  for (int run = 0; run < 2; ++run) {
    @autoreleasepool {
      before = live_objects();
      body();
      after = live_objects();
    }
  }
  if (afterDrain) after = live_objects();
  std::string text;
  for (const auto& [name, count] : after) {
    const int more = count - before[name];
    if (more != 0) text += (text.empty() ? "" : ", ") + name + (more > 0 ? " +" : " ") + std::to_string(more);
  }
  return text;
}

}  // namespace orvane

// The blocks runtime for Linux does not retain the Objective-C objects that a copied block refers to. These two
// functions do, and leave everything else to the runtime.
template <class Function>
static Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void _Block_object_assign(void* destination, const void* object, const int flags) {
  if (flags != BLOCK_FIELD_IS_OBJECT) return next<decltype(_Block_object_assign)>(__func__)(destination, object, flags);
  *static_cast<id*>(destination) = [static_cast<id>(const_cast<void*>(object)) retain];
}

void _Block_object_dispose(const void* object, const int flags) {
  if (flags != BLOCK_FIELD_IS_OBJECT) return next<decltype(_Block_object_dispose)>(__func__)(object, flags);
  [static_cast<id>(const_cast<void*>(object)) release];
}
