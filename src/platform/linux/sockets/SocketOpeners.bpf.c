// Runs in the kernel when a process connects a socket, sends a datagram with an explicit destination, or closes a
// socket, and when a TCP connection is established. Records the process, the connection and its end (SocketRecords.h)
// and always allows the call.
#include <linux/bpf.h>
// The headers below need the types of linux/bpf.h.
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "platform/linux/sockets/SocketRecords.h"

#define SOCK_STREAM 1  // <sys/socket.h> does not compile for BPF
#define AF_INET 2

// The kernel requires a license text. None of the helpers used here is reserved for GPL programs.
const char license_text[] SEC("license") = "Proprietary";

// Constants that the extension sets before it loads the programs.
const volatile __u64 network_namespace = 0;  // cookie of the namespace whose sockets are recorded
// The extension's PID namespace: device and inode of /proc/self/ns/pid, or 0 for the initial namespace. If the
// extension is in any other namespace, the programs call a helper that kernels before 6.10 do not allow in programs of
// this type, so these kernels refuse to load the programs.
const volatile __u64 pid_namespace_device = 0, pid_namespace_inode = 0;

// A full map drops the least recently used records. The extension looks a record up right after the socket's first
// packet, so it misses a record only if thousands of sockets are recorded in this short time. Streams have a map of
// their own: sockets can send datagrams much faster than they can connect, so in a common map a flood of datagrams
// would push out the records of streams.
struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 65536);
  __type(key, __u64);
  __type(value, struct SocketOpener);
} stream_openers SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 65536);
  __type(key, struct StreamRoute);
  __type(value, struct StreamSocket);
} streams SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 16384);
  __type(key, __u64);
  __type(value, struct SocketOpener);
} datagram_openers SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 16384);
  __type(key, struct DatagramRoute);
  __type(value, __u64);
} datagrams SEC(".maps");

// The current process's identifier in the extension's PID namespace. 0 if the process belongs to another namespace. If
// the extension is in the initial namespace, every process has an identifier there.
static __u32 process_identifier(void) {
  if (!pid_namespace_inode) return bpf_get_current_pid_tgid() >> 32;
  struct bpf_pidns_info process = {};
  bpf_get_ns_current_pid_tgid(pid_namespace_device, pid_namespace_inode, &process, sizeof process);
  return process.tgid;
}

// Records the current process in the map. Returns the socket's cookie, or 0 if the socket is not recorded.
static __always_inline __u64 record_opener(struct bpf_sock_addr* context, void* openers) {
  if (bpf_get_netns_cookie(context) != network_namespace) return 0;
  __u32 process = process_identifier();
  if (!process) return 0;
  __u64 cookie = bpf_get_socket_cookie(context);
  __u64 identity = bpf_get_current_uid_gid();
  struct SocketOpener opener = {
      .process = process,
      .user = (__u32)identity,
      .group = identity >> 32,
      .time = bpf_ktime_get_boot_ns(),
  };
  struct SocketOpener* known = bpf_map_lookup_elem(openers, &cookie);
  if (known && known->process == opener.process) {
    *known = opener;  // far cheaper than bpf_map_update_elem(); some processes send thousands of datagrams
  } else {
    bpf_map_update_elem(openers, &cookie, &opener, BPF_ANY);
  }
  return cookie;
}

// Records the socket of a datagram, because a socket that is closed right after sending is in no table of the kernel
// when the extension examines the datagram. The kernel has bound the socket to a port before it calls this program.
static void record_datagram(struct bpf_sock_addr* context, struct DatagramRoute* route, __u64 cookie) {
  struct bpf_sock* socket = context->sk;
  if (!socket || !cookie) return;
  route->localPort = socket->src_port;
  route->remotePort = bpf_ntohs((__u16)context->user_port);
  __u64* known = bpf_map_lookup_elem(&datagrams, route);
  if (!known || *known != cookie) bpf_map_update_elem(&datagrams, route, &cookie, BPF_ANY);
}

static __always_inline int record_connect(struct bpf_sock_addr* context) {
  if (context->type == SOCK_STREAM) {
    record_opener(context, &stream_openers);
  } else {
    record_opener(context, &datagram_openers);
  }
  return 1;
}

SEC("cgroup/connect4")
int connect_v4(struct bpf_sock_addr* context) { return record_connect(context); }

SEC("cgroup/connect6")
int connect_v6(struct bpf_sock_addr* context) { return record_connect(context); }

SEC("cgroup/sendmsg4")
int send_v4(struct bpf_sock_addr* context) {
  struct DatagramRoute route = {.remote = {0, 0, bpf_htonl(0xffff), context->user_ip4}};
  record_datagram(context, &route, record_opener(context, &datagram_openers));
  return 1;
}

SEC("cgroup/sendmsg6")
int send_v6(struct bpf_sock_addr* context) {
  struct DatagramRoute route = {
      .remote = {context->user_ip6[0], context->user_ip6[1], context->user_ip6[2], context->user_ip6[3]}};
  record_datagram(context, &route, record_opener(context, &datagram_openers));
  return 1;
}

// Called when the last descriptor of a socket is closed.
SEC("cgroup/sock_release")
int record_close(struct bpf_sock* context) {
  __u64 cookie = bpf_get_socket_cookie(context);
  struct SocketOpener* opener = bpf_map_lookup_elem(&stream_openers, &cookie);
  if (!opener) opener = bpf_map_lookup_elem(&datagram_openers, &cookie);
  if (opener) opener->isClosed = 1;
  return 1;
}

// Records the endpoints of a connection. When a process connects a TCP socket, the kernel calls record_connect() before
// it chooses the socket's local port, and this program just before it sends the SYN. When the handshake is complete,
// the kernel calls this program again, for the client's socket and for the server's. In these calls, snd_una is the
// sequence number of the first byte that the other side has not acknowledged: the connection's first byte, unless TCP
// Fast Open has sent bytes with the SYN. If both sides sent a SYN at the same time, the kernel calls the program for
// both sockets as for a server's.
//
// A server's socket, or a socket of another network namespace, has no record of its opener. For such a socket, this
// program removes the record of an earlier socket with the same endpoints.
SEC("sockops")
int record_stream(struct bpf_sock_ops* context) {
  const int isEstablished =
      context->op == BPF_SOCK_OPS_ACTIVE_ESTABLISHED_CB || context->op == BPF_SOCK_OPS_PASSIVE_ESTABLISHED_CB;
  if (context->op != BPF_SOCK_OPS_TCP_CONNECT_CB && !isEstablished) return 1;
  struct StreamRoute route = {.localPort = context->local_port, .remotePort = bpf_ntohl(context->remote_port)};
  if (context->family == AF_INET) {
    route.local[2] = route.remote[2] = bpf_htonl(0xffff);
    route.local[3] = context->local_ip4;
    route.remote[3] = context->remote_ip4;
    barrier();  // without it, the compiler reads the context at a variable offset, which the kernel forbids
  } else {
    route.local[0] = context->local_ip6[0];
    route.local[1] = context->local_ip6[1];
    route.local[2] = context->local_ip6[2];
    route.local[3] = context->local_ip6[3];
    route.remote[0] = context->remote_ip6[0];
    route.remote[1] = context->remote_ip6[1];
    route.remote[2] = context->remote_ip6[2];
    route.remote[3] = context->remote_ip6[3];
  }
  struct StreamSocket socket = {.cookie = bpf_get_socket_cookie(context)};
  if (isEstablished) {
    socket.firstByte = context->snd_una;
    socket.hasFirstByte = 1;
    struct StreamSocket* known = bpf_map_lookup_elem(&streams, &route);
    if (known && known->cookie == socket.cookie) {
      known->firstByte = socket.firstByte;
      known->hasFirstByte = 1;
      return 1;
    }
  }
  struct SocketOpener* opener = bpf_map_lookup_elem(&stream_openers, &socket.cookie);
  if (opener) {
    socket.opener = *opener;
    bpf_map_update_elem(&streams, &route, &socket, BPF_ANY);
  } else {
    bpf_map_delete_elem(&streams, &route);
  }
  return 1;
}
