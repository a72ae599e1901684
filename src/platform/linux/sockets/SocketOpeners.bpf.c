// Runs in the kernel whenever a process connects a socket, or sends a datagram to a destination that it gives with it.
// Always lets the call go on.
#include <linux/bpf.h>
// In this order: the headers below need the types of the one above.
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "platform/linux/sockets/SocketRecords.h"

// The kernel requires a license text, although none of the helpers used here restricts it.
const char license_text[] SEC("license") = "Proprietary";

// The one that the extension filters; set before the programs are loaded.
const volatile __u64 network_namespace = 0;

// The file of the extension's PID namespace, when it is not the first one. Its processes are known by their identifiers
// there, which kernels before 6.10 do not tell: they refuse to load the programs then.
const volatile __u64 process_namespace_device = 0, process_namespace_inode = 0;

// The least recently used go when a map is full: a socket's owner is asked for within moments of its first packet.
struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 16384);
  __type(key, __u64);
  __type(value, struct SocketOpener);
} openers SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 16384);
  __type(key, struct DatagramRoute);
  __type(value, __u64);
} datagrams SEC(".maps");

// Of this process, as the extension counts processes. 0 for one of a PID namespace that is not the extension's own,
// unless it sees them all.
static __u32 process_identifier(void) {
  if (!process_namespace_inode) return bpf_get_current_pid_tgid() >> 32;
  struct bpf_pidns_info process = {};
  bpf_get_ns_current_pid_tgid(process_namespace_device, process_namespace_inode, &process, sizeof process);
  return process.tgid;
}

// The socket's cookie, or 0 when it is none of ours.
static __u64 record_opener(struct bpf_sock_addr* context) {
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
  struct SocketOpener* known = bpf_map_lookup_elem(&openers, &cookie);
  if (known && known->process == opener.process) {
    *known = opener;  // far cheaper than an update, for those who send datagrams by the thousand
  } else {
    bpf_map_update_elem(&openers, &cookie, &opener, BPF_ANY);
  }
  return cookie;
}

// The kernel has bound the socket to a port by now. A socket that is closed right after sending is in none of the
// kernel's tables any more when the datagram is looked at.
static void record_datagram(struct bpf_sock_addr* context, struct DatagramRoute* route, __u64 cookie) {
  struct bpf_sock* socket = context->sk;
  if (!socket || !cookie) return;
  route->localPort = socket->src_port;
  route->remotePort = bpf_ntohs((__u16)context->user_port);
  __u64* known = bpf_map_lookup_elem(&datagrams, route);
  if (!known || *known != cookie) bpf_map_update_elem(&datagrams, route, &cookie, BPF_ANY);
}

SEC("cgroup/connect4")
int connect_v4(struct bpf_sock_addr* context) {
  record_opener(context);
  return 1;
}

SEC("cgroup/connect6")
int connect_v6(struct bpf_sock_addr* context) {
  record_opener(context);
  return 1;
}

SEC("cgroup/sendmsg4")
int send_v4(struct bpf_sock_addr* context) {
  struct DatagramRoute route = {.remote = {0, 0, bpf_htonl(0xffff), context->user_ip4}};
  record_datagram(context, &route, record_opener(context));
  return 1;
}

SEC("cgroup/sendmsg6")
int send_v6(struct bpf_sock_addr* context) {
  struct DatagramRoute route = {
      .remote = {context->user_ip6[0], context->user_ip6[1], context->user_ip6[2], context->user_ip6[3]}};
  record_datagram(context, &route, record_opener(context));
  return 1;
}
