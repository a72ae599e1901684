#pragma once

#include <linux/types.h>

// What the kernel's side (SocketOpeners.bpf.c) and ours (SocketOpeners.cpp) say to each other through BPF maps. In C,
// and without gaps, as a map's keys are compared byte by byte.

// The process that connected a socket or sent a datagram with it. Looked up by the socket's cookie.
struct SocketOpener {
  __u32 process, user, group;  // the process's identifier, the real user and group, all as the whole system counts them
  __u32 unused;
  __u64 time;  // nanoseconds since the system's start, time asleep included (CLOCK_BOOTTIME)
};

// The route of a datagram that was sent with its destination given: the socket is bound to the local port, and maybe to
// no address yet. The value is the socket's cookie.
struct DatagramRoute {
  __u32 remote[4];  // in network byte order; IPv4 mapped into IPv6
  __u16 remotePort, localPort;
};
