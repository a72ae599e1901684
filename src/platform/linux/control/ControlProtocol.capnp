@0xf0aaf2aaedec4257;
# The messages of the control channel; docs/protocol.md describes the socket, the limits and the effect of each method.
# Clients depend on the order and the types of the methods and of the kinds of value. Add new methods and kinds at the
# end.

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("orvane::control");

struct Value {
  union {
    nil @0 :Void;
    boolean @1 :Bool;
    signed @2 :Int64;
    unsigned @3 :UInt64;
    real @4 :Float64;
    string @5 :Text;
    date @6 :Float64;  # seconds since 2001-01-01 00:00:00 UTC
    data @7 :Data;
    array @8 :List(Value);
    set @9 :Set;
    dictionary @10 :Dictionary;
  }
}

# If members are equal, the first is kept.
struct Set {
  members @0 :List(Value);
}

# If keys are equal, the first entry is kept.
struct Dictionary {
  entries @0 :List(Entry);

  struct Entry {
    key @0 :Value;
    value @1 :Value;
  }
}

interface OrvaneSECommunication {
  ping @0 () -> (reply :Bool);
  getAppFilterState @1 () -> (reply :Bool);
  start @2 ();
  stop @3 ();
  addApplicationIdentifier @4 (identifier :Value);
  removeApplicationIdentifier @5 (identifier :Value);
  setApplicationIdentifiers @6 (identifiers :Value);
  addHostname @7 (hostname :Value);
  removeHostname @8 (hostname :Value);
  setHostnames @9 (hostnames :Value);
  setProperties @10 (properties :Value, forHostname :Value);
  getChangesCount @11 () -> (reply :UInt64);
}
