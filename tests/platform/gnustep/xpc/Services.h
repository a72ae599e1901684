#pragma once

// A stand-in for XPC's services, in which everything happens on the calling thread. A service exists from resume() to
// invalidate() of its listener. A message without a reply waits until the client sends a message with a reply, or the
// test calls deliver_messages(). The calls with which the service sets up its side of a connection are traced.
namespace orvane::stand_in {

// Delivers the waiting messages.
void deliver_messages();

// Breaks all connections: the waiting messages are lost, and the next message connects again. Calls the interruption
// handlers of both sides. With `restarted`, does not call them and gives the service a new process id: the service has
// restarted, but XPC has not reported that yet.
void break_connections(bool restarted = false);

// Invalidates the clients' sides of all connections without an interruption. Calls their invalidation handlers.
void invalidate_connections();

// The next message with a reply is not answered, until another thread invalidates a connection.
void hang();

}  // namespace orvane::stand_in
