#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "platform/Value.h"

namespace orvane {

// The service name that the extension's bundle declares.
inline constexpr const char* kDefaultServiceName = ORVANE_SERVICE_NAME;

// A call failed. what() is a message for the user: what failed, on what, and what to do about it.
class ClientError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// No extension runs: no process listens on any of the possible sockets.
class NoExtension : public ClientError {
 public:
  using ClientError::ClientError;
};

// An extension runs but accepts no connection or does not answer: it hangs, or serves too many clients.
class UnresponsiveExtension : public ClientError {
 public:
  using ClientError::ClientError;
};

struct ClientOptions {
  std::string service = kDefaultServiceName;
  // The path of the extension's Unix socket. If it is empty, the client tries the usual paths (the user's paths first,
  // then the system's), and uses the first path at which an extension listens. On macOS there is no socket, and the
  // path must be empty.
  std::string socket;
};

// A connection to a running extension. A call returns when the extension has carried it out, so its effect is visible
// to every later call of any client. The comments beside the methods name the types that the arguments should have, but
// the extension accepts any value. Over a Unix socket, the client sends any value; over XPC, it sends nil or the
// expected type and throws for everything else. Not thread-safe.
//
// Every call may throw ClientError. After that, the connection is unusable, with one exception: if an argument is too
// large for one message, or has a type that XPC cannot carry, the client sends nothing and the connection stays usable.
class Client {
 public:
  // Called with the number of bytes that the system has accepted so far, and with the number of all bytes to send.
  using Progress = std::function<void(uint64_t sent, uint64_t total)>;

  virtual ~Client() = default;

  // The connection's descriptor. Two uses are allowed: poll(2) reports kHangUpEvent (ControlChannel.h) when the
  // extension has closed the connection; and shutdown(2), also from a signal handler, makes a waiting call throw.
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

  // The same edits for many names. addHostnames and removeHostnames send one message for each name without waiting for
  // each reply. The extension carries out these messages in order, and the functions return when it has carried out the
  // last one. setHostnames sends one message; duplicate names are merged. `progress`, if given, is called from time to
  // time while the message is sent.
  virtual void addHostnames(std::span<const std::string> hostnames) = 0;
  virtual void removeHostnames(std::span<const std::string> hostnames) = 0;
  virtual void setHostnames(std::span<const std::string> hostnames, const Progress& progress) = 0;
};

// Connects to the extension. Throws one of three errors: NoExtension; UnresponsiveExtension, if a CallTimeout's signal
// ended the wait for an extension that accepts no connection, or if over XPC no answer came for 2 s; ClientError for
// any other failure, and over XPC also if no extension runs.
std::unique_ptr<Client> connect_client(const ClientOptions& options);

}  // namespace orvane
