#pragma once

// A stand-in for XPC's services, in which everything happens on the calling thread. Thread-safe. A service exists from
// resume() to invalidate() of its listener. A message without a reply waits until the client sends a message with a
// reply, or the test calls deliver_messages(). The calls with which the service sets up its side of a connection are
// traced.
//
// Where the behaviour comes from: the comments in the SDK's NSXPCConnection.h say when connections and listeners begin
// to work, that a synchronous call runs its reply or its error handler before it returns, when each handler of a
// connection is called, that a listener without a delegate rejects all connections, and that the messages to an object
// are delivered one after the other. Apple's page on -[NSXPCConnection activate] describes this method. The
// documentation does not say what happens to a message whose argument has a class that is not allowed. Foundation
// itself logs that it drops such a message ("dropping incoming message"), and the stand-in does so. The documentation
// does not say either which error an invalid name of a service causes; here it is an exception.
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
