#pragma once

// A stand-in for XPC's services, on the calling thread. A service exists while its listener is resumed. A message
// without a reply waits until a message with a reply is sent, or until deliver_messages(). The service's end of a
// connection traces the calls that set it up.
namespace orvane::stand_in {

// Delivers the waiting messages.
void deliver_messages();

// Breaks all connections: the waiting messages are lost, and the next message connects again. Calls the interruption
// handlers of both ends. With `restarted`, the service has a new process, and no handler has been called yet.
void break_connections(bool restarted = false);

}  // namespace orvane::stand_in
