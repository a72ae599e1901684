#pragma once

#include <linux/types.h>

// The records that SocketOpeners.bpf.c writes in the kernel and SocketOpeners.cpp reads, through BPF maps. The types
// are plain C, because a C compiler (for BPF) and a C++ compiler read them. They have no padding, because a map
// compares its keys byte by byte.

// The process that last connected a socket or sent a datagram with an explicit destination. The record's key is the
// socket's cookie.
struct SocketOpener {
  __u32 process;      // in the PID namespace of the extension
  __u32 user, group;  // real ids, in the initial user namespace
  __u32 isClosed;     // 1 when the last descriptor of the socket has been closed; always 0 in StreamSocket
  __u64 time;         // CLOCK_BOOTTIME, in nanoseconds
};

// The key of a record of a datagram that was sent with an explicit destination; the record's value is the socket's
// cookie. The key has no local address, because the socket may be bound to a port without an address.
struct DatagramRoute {
  __u32 remote[4];  // in network byte order; an IPv4 address is mapped into IPv6
  __u16 remotePort, localPort;
};

// The key of a record of a connection, and the record.
struct StreamRoute {
  __u32 local[4], remote[4];  // in network byte order; an IPv4 address is mapped into IPv6
  __u16 localPort, remotePort;
};
struct StreamSocket {
  struct SocketOpener opener;
  __u64 cookie;
  __u32 firstByte;     // the sequence number of the first byte after the handshake
  __u32 hasFirstByte;  // 0 while the connection is not established; firstByte is then not known
};
