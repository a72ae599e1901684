#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Log.h"
#include "platform/NetworkExtension.h"
#include "platform/Process.h"
#include "platform/Security.h"
#include "platform/XPC.h"

// A stand-in for the operating system. Tests set what its functions return, and inspect how they were called. It
// consists of several libraries, so that a test can use those of a real platform in place of some.
namespace orvane::stand_in {

// The trace: lines about calls to the stand-in, in order. Thread-safe.
void trace(const std::string& line);
std::string take_trace();  // the lines since the last call, joined by " | "

// An object that alive() counts under its kind, the name of its type. Its destruction is traced as "release KIND".
struct Counted {
  explicit Counted(const char* kindName);
  ~Counted();
  const char* kind;
  mutable std::atomic<int> references{1};
};
int alive(const std::string& kind);

// Object.h.
inline bool nextInitialiserFails = false;  // makes the next NSObject::initialise() return false
inline std::atomic<int> aliveObjects{0};   // live NSObjects of all classes

// Synchronization.h.
inline thread_local std::string heldLocks;    // the locks that this thread holds now: "@" a monitor, "+" a mutex
inline thread_local int mutexLocks = 0;       // how often this thread locked a mutex
inline std::atomic<int> nextUnlockStatus{0};  // the next unlock unlocks the mutex and returns this status

// Log.h. Handles are counted as "LogHandle". The default log's category is "default".
struct LogEntry {
  LogLevel level;
  std::string category;  // "SUBSYSTEM/CATEGORY" when the subsystem is not the extension's identifier
  std::string text;      // begins with the heldLocks of the thread that logs it
};
inline struct LogState {
  std::set<LogLevel> disabled;
  std::vector<LogEntry> entries;
  std::function<void(const LogEntry&)> hook;  // called with each entry
} log;
// The entries since the last call, joined by " | ". Each is the category, the level (": " debug, "! " error, "? " info,
// "* " default) and the text. With an argument, returns the entries of that category, without the category, and without
// the level if it is debug. The entries of other categories are then lost.
std::string take_log(const std::string& category = "");

// Bundle.h, ReadStream.h, PropertyList.h, Clock.h. All bundles are the same; a resource's URL is file:///NAME.TYPE.
inline struct FileState {
  Value information = nullptr;   // the bundle's Info.plist, a dictionary
  std::string fails;             // the failing step: "bundle", "resource", "stream", "open", "read", "data" or "parse"
  std::string content;           // the bytes of the stream
  bool offersBuffer = false;     // whether the stream gives access to its buffer
  Value propertyList = nullptr;  // the parser's result for any data
  size_t parsedLength = 0;       // how many bytes the parser received
  std::string bundleURL, resourceURL;
  double now = 0;
} files;

// Security.h, Process.h. Processes are identified by token_of(pid). `image` is the version of the process identifier,
// which changes when the process executes another program.
inline struct SecurityState {
  using Step = std::pair<OSStatus, bool>;  // the status, and whether the output is null
  Step guest, staticCode, information, path;
  bool numberFails = false, noPropertyList = false, noFileSystemPath = false;
  std::map<int32_t, std::string> identifiers;  // of each running process, by pid; "" if its Info.plist has none
  std::map<int32_t, int32_t> responsible;      // by pid; a process without an entry is responsible for itself
  std::vector<int32_t> pidsAsked;              // the arguments of responsibility_get_pid_responsible_for_pid
  std::vector<int32_t> lookUps;                // on GNUstep: the process of each call of a code-signing service
} security;
inline Value token_of(int32_t pid, uint32_t image = 0) {
  const audit_token_t token{{0, 0, 0, 0, 0, static_cast<uint32_t>(pid), 0, image}};
  return Value::data(std::bit_cast<std::array<uint8_t, sizeof token>>(token));
}

// DNS.h. Questions are counted as "dns_question_t".
inline struct DNSState {
  bool fails = false;
  std::optional<std::string> name;  // the name in the question
  std::string parsed;               // the bytes that the parser received
} dns;

// NetworkExtension.h, Foundation.h.
inline struct FilterState {
  std::map<std::string, Ref<NEFilterDataProvider> (*)()> classes;
  int32_t startStatus = 0;
} filter;
Ref<NSError> error_named(const std::string& description);  // the localised description is "localised DESCRIPTION"
Ref<NSURL> url_of(const std::string& absoluteString);

template <class Base>
struct ScriptedFlow : Base {
  explicit ScriptedFlow(Value owner, std::optional<std::string> address = {})
      : token(std::move(owner)), url(std::move(address)) {}
  Value token;
  std::optional<std::string> url;
  Value sourceAppAuditToken() const override { return token; }
  Ref<NSURL> URL() const override { return url ? url_of(*url) : nullptr; }
};
using Flow = ScriptedFlow<NEFilterFlow>;
struct SocketFlow : ScriptedFlow<NEFilterSocketFlow> {
  using ScriptedFlow::ScriptedFlow;
  std::optional<std::string> hostname;
  mutable std::deque<Ref<NWEndpoint>> endpoints;  // one for each read of the endpoint; the last one repeats
  Ref<NWEndpoint> remoteEndpoint() const override {
    Ref<NWEndpoint> current = endpoints.empty() ? nullptr : endpoints.front();
    if (endpoints.size() > 1) endpoints.pop_front();
    return current;
  }
  std::optional<std::string> remoteHostname() const override { return hostname; }
  int32_t socketType() const override { return 1; }
};

// XPC.h: the listener that was made last. Calls to it are traced.
inline struct ListenerState {
  NSXPCListener* listener = nullptr;
  Ref<NSXPCListenerDelegate> delegate;
  Value name = nullptr;
} listener;

// For Dispatch.h: dispatch_main throws this, so that the test gets its thread back.
struct MainThreadParked {};

// Empties the trace, and gives the structs above their default values.
void reset();

}  // namespace orvane::stand_in

// Defines a counted type with one member, and its retain() and release().
#define ORVANE_STAND_IN_COUNTED(key, Type, Content)                                                                 \
  key Type : public ::orvane::stand_in::Counted {                                                                   \
   public:                                                                                                          \
    explicit Type(Content held = {}, const char* kindName = #Type) : Counted(kindName), content(std::move(held)) {} \
    Content content;                                                                                                \
  };                                                                                                                \
  void retain(const Type* object) { ++object->references; }                                                         \
  void release(const Type* object) {                                                                                \
    if (--object->references == 0) delete object;                                                                   \
  }
