#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "platform/NetworkExtension.h"
#include "platform/Security.h"
#include "platform/XPC.h"

// The stand-in operating system: answers to the platform headers that tests script and look into. Each header's answers
// are a library of their own, so that a test can mix them with real ones.
namespace orvane::stand_in {

// What happened, in order: each line is written by the stand-in that it happened to. Thread-safe.
void trace(const std::string& line);
std::string take_trace();  // joined by " | "

// An object that is counted among those alive of its kind, which bears the header's name for it. Its end is traced.
struct Counted {
  explicit Counted(const char* kindName);
  ~Counted();
  const char* kind;
  mutable std::atomic<int> references{1};
};
int alive(const std::string& kind);

// Object.h.
inline bool nextInitialiserFails = false;  // the base initialiser of the next object made
inline std::atomic<int> aliveObjects{0};   // NSObjects of all classes

// Synchronization.h.
inline thread_local std::string held;      // by this thread: in its order, a "@" for each monitor, a "+" for each mutex
inline thread_local int mutexesTaken = 0;  // by this thread
inline std::atomic<int> nextUnlockStatus{0};  // what the next unlock reports, after having unlocked

// Log.h. Every handle is an object of its own ("LogHandle"); the default log's category is "default".
struct LogEntry {
  LogLevel level;
  std::string category;  // with its subsystem where that is not the extension
  std::string text;      // after what its thread held
};
inline struct LogState {
  std::set<LogLevel> disabled;
  std::vector<LogEntry> entries;
  std::function<void(const LogEntry&)> hook;  // called with each entry, may throw
} log;
// The entries since the last call, joined by " | ": the category, ": " at debug level, "! " at error, "? " at info or
// "* " at default level, the text. Of one category alone without its name and the ": ".
std::string take_log(const std::string& category = "");

// Bundle.h, ReadStream.h, PropertyList.h, Clock.h. One bundle, whose resource "Browsers.plist" is a stream.
inline struct FileState {
  Value information = nullptr;   // a dictionary
  std::string fails;             // "bundle", "resource", "stream", "open", "read", "data" or "parse"
  std::string content;           // what the stream gives
  bool offersBuffer = false;     // all of it, at once
  Value propertyList = nullptr;  // what the parser makes of any data
  size_t parsedLength = 0;       // of the data that it was given
  std::string bundleURL, resourceURL;
  double now = 0;
} files;

// Security.h, Process.h. Tokens are those of token_of(pid).
inline struct SecurityState {
  using Step = std::pair<OSStatus, bool>;  // its status, and whether it gives no output
  Step guest, staticCode, information, path;
  bool numberFails = false, noPropertyList = false, noFileSystemPath = false;
  std::map<int32_t, std::string> identifiers;  // of running processes; "" has a property list without identifier
  std::map<int32_t, int32_t> responsible;      // others are responsible for themselves
  std::vector<int32_t> pidsAsked;              // by responsibility_get_pid_responsible_for_pid
} security;
Value token_of(int32_t pid);

// DNS.h. Counted as "dns_question_t".
inline struct DNSState {
  bool fails = false;
  std::optional<std::string> name;  // of the question; without one the question has none
  std::string parsed;               // the bytes it was given
} dns;

// NetworkExtension.h, Foundation.h.
inline struct FilterState {
  std::map<std::string, Ref<NEFilterDataProvider> (*)()> classes;
  int32_t startStatus = 0;
  std::optional<NEFilterSettings> applied;
  Ref<NSError> applyError;
  std::function<void()> pendingApply;  // completes applySettings
} filter;
Ref<NSError> error_named(const std::string& description);  // its localised description is "localised DESCRIPTION"
Ref<NSURL> url_of(const std::string& absoluteString);

template <class Base>
struct ScriptedFlow : Base {
  explicit ScriptedFlow(Value owner, std::optional<std::string> its = {}) : token(owner), url(std::move(its)) {}
  Value token;
  std::optional<std::string> url;
  Value sourceAppAuditToken() const override { return token; }
  Ref<NSURL> URL() const override { return url ? url_of(*url) : nullptr; }
};
using Flow = ScriptedFlow<NEFilterFlow>;
struct SocketFlow : ScriptedFlow<NEFilterSocketFlow> {
  using ScriptedFlow::ScriptedFlow;
  std::optional<std::string> hostname;
  mutable std::deque<Ref<NWEndpoint>> endpoints;  // one for each read, the last one for all that follow
  Ref<NWEndpoint> remoteEndpoint() const override {
    Ref<NWEndpoint> current = endpoints.empty() ? nullptr : endpoints.front();
    if (endpoints.size() > 1) endpoints.pop_front();
    return current;
  }
  std::optional<std::string> remoteHostname() const override { return hostname; }
  int32_t socketType() const override { return 1; }
};

// XPC.h: the last listener made. What it is told is traced.
inline struct ListenerState {
  NSXPCListener* listener = nullptr;
  Ref<NSXPCListenerDelegate> delegate;
  Value name = nullptr;
} listener;

// Dispatch.h. Thrown by dispatch_main, so that a test gets its thread back.
struct MainThreadParked {};

// All that a test scripts as at first.
void reset();

}  // namespace orvane::stand_in

// A counted type that holds one thing, and its two functions.
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
