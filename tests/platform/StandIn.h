#pragma once

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "platform/NetworkExtension.h"
#include "platform/Security.h"
#include "platform/XPC.h"

// The stand-in operating system: answers to the platform headers that tests script and look into. Each header's answers
// are a library of their own, so that a test can mix them with real ones.
namespace orvane::stand_in {

// What happened, in order: each line is written by the stand-in that it happened to. And how many objects of a kind are
// alive, by the names that the headers use. Thread-safe.
void trace(const std::string& line);
std::vector<std::string> take_trace();
int alive(const std::string& kind);
void born(const std::string& kind);
void died(const std::string& kind);  // also traces "release KIND"

// Object.h. Fails the base initialiser of the next object when set.
extern bool nextInitialiserFails;
// NSObjects of all classes that are alive.
int alive_objects();

// Log.h. Every handle is an object of its own ("LogHandle").
struct LogEntry {
  LogLevel level;
  std::string category;
  std::string text;
  int mutexesHeld;  // by the thread that wrote it
};
struct LogState {
  std::map<LogLevel, bool> enabled;  // all on at first
  std::vector<LogEntry> entries;
  std::function<void(const LogEntry&)> hook;  // called with each entry, may throw
};
LogState& log();
// The entries since the last call, as "category: text", at error level "category! text".
std::vector<std::string> take_log();

// Synchronization.h. How many RecursiveMutexes the calling thread holds.
int& mutexes_held();
extern int nextUnlockStatus;  // what unlocks report, after having unlocked

// Bundle.h, ReadStream.h, PropertyList.h, Clock.h. One bundle, whose resource "Browsers.plist" is a stream.
struct FileState {
  Value information = nullptr;  // a dictionary
  bool bundleFails = false, resourceMissing = false, streamFails = false, openFails = false, dataFails = false;
  std::string content;        // what the stream gives
  bool offersBuffer = false;  // all of it, at once
  bool readFails = false;
  Value propertyList = nullptr;  // what the parser makes of any data...
  std::string parserError;       // ...or fails with
  size_t parsedLength = 0;       // of the data that it was given
  std::string bundleURL, resourceURL;
  double now = 0;
};
FileState& files();

// Security.h, Process.h. Tokens are those of token_of(pid).
struct SecurityState {
  struct Step {
    OSStatus status = 0;
    bool null = false;
  };
  Step guest, staticCode, information, path;
  bool numberFails = false, noPropertyList = false, noFileSystemPath = false;
  std::map<int32_t, std::string> identifiers;  // of running processes; "" has a property list without identifier
  std::map<int32_t, int32_t> responsible;      // others are responsible for themselves
  std::vector<int32_t> pidsAsked;              // by responsibility_get_pid_responsible_for_pid
};
SecurityState& security();
Value token_of(int32_t pid);

// DNS.h. Counted as "dns_question_t".
struct DNSState {
  bool fails = false;
  std::optional<std::string> name;  // of the question; without one the question has none
  std::string parsed;               // the bytes it was given
};
DNSState& dns();

// NetworkExtension.h.
struct FilterState {
  std::map<std::string, Ref<NEFilterDataProvider> (*)()> classes;
  int32_t startStatus = 0;
  std::optional<NEFilterSettings> applied;
  Ref<NSError> applyError;
  std::function<void()> pendingApply;  // completes applySettings, when `defersApply` is set
  bool defersApply = false;
};
FilterState& filter();
Ref<NSError> error_named(const std::string& description);  // its localised description is "localised DESCRIPTION"
Ref<NSURL> url_of(const std::string& absoluteString);

class Flow : public NEFilterFlow {
 public:
  Value token = nullptr;
  std::optional<std::string> url;
  Value sourceAppAuditToken() const override { return token; }
  Ref<NSURL> URL() const override { return url ? url_of(*url) : nullptr; }
};

class SocketFlow : public NEFilterSocketFlow {
 public:
  Value token = nullptr;
  std::optional<std::string> url, hostname;
  std::deque<Ref<NWEndpoint>> endpoints;  // one for each read, the last one for all that follow
  mutable size_t endpointReads = 0;

  Value sourceAppAuditToken() const override { return token; }
  Ref<NSURL> URL() const override { return url ? url_of(*url) : nullptr; }
  Ref<NWEndpoint> remoteEndpoint() const override {
    if (endpoints.empty()) return nullptr;
    return endpoints[std::min(endpointReads++, endpoints.size() - 1)];
  }
  std::optional<std::string> remoteHostname() const override { return hostname; }
  int32_t socketType() const override { return 1; }
};

// XPC.h. What a listener and its connections are told is traced.
class Connection : public NSXPCConnection {
 public:
  Ref<OrvaneSECommunication> exported;
  std::function<void()> invalidated, interrupted;
  const Protocol* protocol = nullptr;

  void setExportedInterface(const NSXPCInterface& exportedInterface) override;
  void setExportedObject(OrvaneSECommunication* exportedObject) override;
  void activate() override;
  void setInvalidationHandler(std::function<void()> handler) override;
  void setInterruptionHandler(std::function<void()> handler) override;
};
struct ListenerState {
  NSXPCListener* listener = nullptr;  // the last one made
  NSXPCListenerDelegate* delegate = nullptr;
  Value name = nullptr;
};
ListenerState& listener();

// Dispatch.h. Thrown by dispatch_main, so that a test gets its thread back.
struct MainThreadParked {};

// All of it as at first.
void reset();

}  // namespace orvane::stand_in
