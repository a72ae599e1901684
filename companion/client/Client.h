#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "platform/Value.h"

namespace orvane {

// The name that the extension's bundle gives its service.
inline constexpr const char* kDefaultServiceName = ORVANE_SERVICE_NAME;

// What could not be done. The text is a whole sentence for the user: what failed, on what, and what to do about it.
class ClientError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// No extension runs: nobody listens at any place where one might.
class NoExtension : public ClientError {
 public:
  using ClientError::ClientError;
};

// There is an extension, and it takes no connection or answers nothing: it hangs, or serves too many clients.
class UnresponsiveExtension : public ClientError {
 public:
  using ClientError::ClientError;
};

struct ClientOptions {
  std::string service = kDefaultServiceName;
  // The socket to use, where the system has such a thing. Empty: the one that bears the service's name, in the first
  // directory that holds one.
  std::string socket;
};

// A connection to a running extension. Each call returns once the extension has carried it out, so what one client did
// before is seen by whatever comes after. Arguments are sent as they are: the extension takes nil and values of other
// types than the named ones, too, where the system's channel carries them (XPC does not). Not thread-safe.
//
// Every call may throw ClientError; once one has, the connection is of no further use, unless the error said that the
// argument was too large to be sent.
class Client {
 public:
  // Bytes handed to the system so far, and bytes in all.
  using Progress = std::function<void(uint64_t sent, uint64_t total)>;

  virtual ~Client() = default;

  // A descriptor that poll(2) reports as hung up (POLLHUP or POLLRDHUP) once the extension has ended the connection; -1
  // where the system's channel has none. It may also be shut down (shutdown(2)), by a signal handler, too: a call that
  // waits then throws. Nothing else may be done with it.
  virtual int descriptor() const { return -1; }

  virtual bool ping() = 0;
  virtual bool appFilterState() = 0;
  virtual void start() = 0;
  virtual void stop() = 0;
  virtual void addApplicationIdentifier(const Value& identifier) = 0;                 // a string
  virtual void removeApplicationIdentifier(const Value& identifier) = 0;              // a string
  virtual void setApplicationIdentifiers(const Value& identifiers) = 0;               // an array
  virtual void addHostname(const Value& hostname) = 0;                                // a string
  virtual void removeHostname(const Value& hostname) = 0;                             // a string
  virtual void setHostnames(const Value& hostnames) = 0;                              // a set of strings
  virtual void setProperties(const Value& properties, const Value& forHostname) = 0;  // a dictionary, a string
  virtual uint64_t changesCount() = 0;

  // The same edits for lists of names. addHostnames and removeHostnames send one message for each name without waiting
  // for the one before, and return when all are carried out, in order. setHostnames sends one message with the names
  // as they stand (duplicates collapse, at the latest in the extension); `progress`, where given, is called now and
  // then while it is being sent.
  virtual void addHostnames(std::span<const std::string> hostnames) = 0;
  virtual void removeHostnames(std::span<const std::string> hostnames) = 0;
  virtual void setHostnames(std::span<const std::string> hostnames, const Progress& progress) = 0;
};

// Connects to the extension. Throws NoExtension, UnresponsiveExtension when a signal broke off the
// wait for one that is there.
std::unique_ptr<Client> connect_client(const ClientOptions& options);

}  // namespace orvane
