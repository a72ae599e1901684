#pragma once

// The services of the stand-in XPC, on the thread that calls. A service is there as long as its listener is resumed. A
// message without a reply is on its way until another is answered. Connections that a listener gives out trace what
// they are told.
namespace orvane::stand_in {

// Carries out what is on its way.
void settle_services();

// Breaks all connections: what is on its way is lost, and the next message connects again. Both ends hear of it; where
// the services' process has `ended`, and another follows, that news comes later than anything else.
void break_connections(bool ended = false);

}  // namespace orvane::stand_in
