// Runs in the kernel when a process executes a program or ends, when processes move to another control group, and when
// a control group is renamed. Counts these events, for ProcessChanges.cpp.
#include <linux/bpf.h>
// The header below needs the types of linux/bpf.h.
#include <bpf/bpf_helpers.h>

// The kernel requires a license text. None of the helpers used here is reserved for GPL programs.
const char license_text[] SEC("license") = "Proprietary";

// Constants that the extension sets before it loads the programs: device and inode of /proc/self/ns/pid, or 0 for the
// initial PID namespace.
const volatile __u64 pid_namespace_device = 0, pid_namespace_inode = 0;

// The counters. Processes whose identifiers differ by a multiple of SLOTS share a counter. The last counter is for
// events that may concern any process.
#define SLOTS 65536
__u64 events[SLOTS + 1];

// An atomic operation whose result is used orders memory: a reader of the new count also sees what the process has
// changed before the event. So the result is used: the programs return it. The kernel ignores what a program at a
// tracepoint returns.
static __always_inline int count(__u64* counter) { return __sync_fetch_and_add(counter, 1) != 0; }

static __always_inline int count_of_process(void) {
  __u32 process = bpf_get_current_pid_tgid() >> 32;
  if (pid_namespace_inode) {
    struct bpf_pidns_info own = {};
    // This fails for a process in a namespace below the extension's. The extension sees this process, but the kernel
    // does not report the identifier that the process has in the extension's namespace.
    if (bpf_get_ns_current_pid_tgid(pid_namespace_device, pid_namespace_inode, &own, sizeof own) != 0) {
      return count(&events[SLOTS]);
    }
    process = own.tgid;
  }
  return count(&events[process % SLOTS]);
}

// Called when the process has its new executable, before the first instruction of the new program.
SEC("raw_tp/sched_process_exec")
int on_exec(void* context) {
  (void)context;
  return count_of_process();
}

// Called for each thread that ends. Only the first thread counts: a pid is free only after this thread has ended.
SEC("raw_tp/sched_process_exit")
int on_exit(void* context) {
  (void)context;
  __u64 identifiers = bpf_get_current_pid_tgid();
  return (__u32)identifiers == identifiers >> 32 ? count_of_process() : 0;
}

SEC("raw_tp/cgroup_attach_task")
int on_move(void* context) {
  (void)context;
  return count(&events[SLOTS]);
}

SEC("raw_tp/cgroup_transfer_tasks")
int on_move_of_all(void* context) {
  (void)context;
  return count(&events[SLOTS]);
}

SEC("raw_tp/cgroup_rename")
int on_rename(void* context) {
  (void)context;
  return count(&events[SLOTS]);
}
