// What runs in the kernel: for the packet filter, whether a packet belongs to a flow that is taken
// or has its answer; and, watching TCP's sockets, who connects and which taken flows are over. None
// of it changes a packet or a socket.

#include <linux/bpf.h>
#include <linux/in.h>
#include <stdbool.h>

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "platform/linux/kernel/ProgramTypes.h"

const char licence[] SEC("license") = "GPL";

const volatile struct ProgramSurroundings surroundings;

// The kernel's structures, as far as they are read. Where each member lies is found out at loading.

struct ns_common {
  unsigned int inum;
} __attribute__((preserve_access_index));
struct net {
  struct ns_common ns;
} __attribute__((preserve_access_index));
typedef struct {
  struct net* net;
} possible_net_t;
struct sock_common {
  __u32 skc_daddr;
  __u32 skc_rcv_saddr;
  __u16 skc_dport;
  int skc_bound_dev_if;
  possible_net_t skc_net;
} __attribute__((preserve_access_index));
struct sock {
  struct sock_common __sk_common;
} __attribute__((preserve_access_index));
struct inet_sock {
  struct sock sk;
  __u16 inet_sport;
} __attribute__((preserve_access_index));
struct task_struct {
  struct task_struct* group_leader;
  __u64 start_boottime;
  __u64 self_exec_id;
} __attribute__((preserve_access_index));

enum { stateSynSent = 2, stateSynReceived = 3, stateClose = 7 };
enum { applicationGone = 1, relayGone = 2, bothGone = 3 };

/// Flows that were taken. Those of TCP come with the SYN that reaches the relay's side and go with
/// the later one of both sockets: what the kernel itself sends for a socket that is no more still
/// has to find the other. Those of UDP come and go with the daemon's word.
struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 1);  // the daemon says how many; there is room for all of them from the start
  __type(key, struct FlowAddresses);
  __type(value, struct TakenFlow);
} takenFlows SEC(".maps");

/// The UDP flows that were left alone, and the daemon's own: each with the cookie of its socket,
/// since another one with the same addresses is a flow of its own.
struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 16384);
  __type(key, struct FlowAddresses);
  __type(value, struct AnsweredDatagrams);
} leftFlows SEC(".maps");

struct AskedDatagrams {
  __u64 cookie;
  __u64 asked;
};

/// How many datagrams of a flow were asked about. While not all of them have gone on, the next ones
/// must wait behind them.
struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 16384);
  __type(key, struct FlowAddresses);
  __type(value, struct AskedDatagrams);
} askedDatagrams SEC(".maps");

/// UDP flows that their peers began, and when these spoke last: no answer to them is a new flow.
struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 16384);
  __type(key, struct FlowAddresses);
  __type(value, __u64);
} heardPeers SEC(".maps");

struct Connector {
  __u64 socket;  // its address
  struct ConnectingProcess process;
};

/// The sockets that connected last. Sockets share places: the latest has it.
struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, rememberedConnectors);
  __type(key, __u32);
  __type(value, struct Connector);
} connectors SEC(".maps");

/// The connections that are asked about, for the daemon to read without a call.
struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(map_flags, BPF_F_MMAPABLE);
  __uint(max_entries, rememberedConnectors);
  __type(key, __u32);
  __type(value, struct AskedFlow);
} askedFlows SEC(".maps");

static const __u64 longestSilence = 120ULL * 1000 * 1000 * 1000;

/// The addresses of an IPv4 packet, as the packet filter shows it: the header comes first.
static __always_inline bool readAddresses(struct __sk_buff* packet, struct FlowAddresses* flow) {
  __u8 header[20];
  if (bpf_skb_load_bytes(packet, 0, header, sizeof header) != 0) return false;
  __u32 ports = 0;
  if (bpf_skb_load_bytes(packet, (header[0] & 0xF) * 4, &ports, sizeof ports) != 0) return false;
  __builtin_memcpy(&flow->source, header + 12, sizeof flow->source);
  __builtin_memcpy(&flow->destination, header + 16, sizeof flow->destination);
  __builtin_memcpy(&flow->sourcePort, &ports, sizeof ports);
  flow->protocol = header[9];
  return true;
}

static __always_inline bool isSyn(struct __sk_buff* packet) {
  enum { flagsOffset = 13, syn = 2 };
  __u8 headerLength = 0;
  __u8 flags = 0;
  return bpf_skb_load_bytes(packet, 0, &headerLength, 1) == 0 &&
         bpf_skb_load_bytes(packet, (headerLength & 0xF) * 4 + flagsOffset, &flags, 1) == 0 &&
         (flags & syn) != 0;
}

static __always_inline struct FlowAddresses reversed(const struct FlowAddresses* flow) {
  return (struct FlowAddresses){.source = flow->destination,
                                .destination = flow->source,
                                .sourcePort = flow->destinationPort,
                                .destinationPort = flow->sourcePort,
                                .protocol = flow->protocol};
}

/// Has the flow of this socket its answer, and nothing that waits for it any more?
static __always_inline bool isAnswered(const struct FlowAddresses* flow, __u64 cookie,
                                       const struct AnsweredDatagrams* answer) {
  if (answer == NULL || answer->cookie != cookie) return false;
  const struct AskedDatagrams* asked = bpf_map_lookup_elem(&askedDatagrams, flow);
  return asked == NULL || asked->cookie != cookie || asked->asked <= answer->answered;
}

/// Outgoing: does the packet belong to a taken flow?
SEC("socket")
int isTaken(struct __sk_buff* packet) {
  struct FlowAddresses flow;
  if (!readAddresses(packet, &flow)) return false;
  const struct TakenFlow* taken = bpf_map_lookup_elem(&takenFlows, &flow);
  if (taken == NULL) return false;
  if (flow.protocol == IPPROTO_UDP)
    return isAnswered(&flow, bpf_get_socket_cookie(packet), &taken->datagrams);
  // A connection that begins must not inherit the answer of an older one.
  if (!isSyn(packet)) return true;
  bpf_map_delete_elem(&takenFlows, &flow);
  return false;
}

/// Outgoing, of UDP, not to be taken at once: is the datagram to be asked about?
SEC("socket")
int isAsked(struct __sk_buff* packet) {
  struct FlowAddresses flow;
  if (!readAddresses(packet, &flow)) return false;
  const __u64 cookie = bpf_get_socket_cookie(packet);
  if (isAnswered(&flow, cookie, bpf_map_lookup_elem(&leftFlows, &flow))) return false;
  struct AskedDatagrams* asked = bpf_map_lookup_elem(&askedDatagrams, &flow);
  if (asked != NULL && asked->cookie == cookie) {
    __sync_fetch_and_add(&asked->asked, 1);
    return true;
  }
  const __u64* heard = bpf_map_lookup_elem(&heardPeers, &flow);
  if (heard != NULL && bpf_ktime_get_ns() - *heard <= longestSilence) return false;
  const struct AskedDatagrams first = {.cookie = cookie, .asked = 1};
  bpf_map_update_elem(&askedDatagrams, &flow, &first, BPF_ANY);
  return true;
}

/// Outgoing, of UDP, the daemon's own: nobody is asked, but what comes back is an answer.
SEC("socket")
int noteOwn(struct __sk_buff* packet) {
  struct FlowAddresses flow;
  if (!readAddresses(packet, &flow)) return false;
  const struct AnsweredDatagrams own = {.cookie = bpf_get_socket_cookie(packet)};
  const struct AnsweredDatagrams* noted = bpf_map_lookup_elem(&leftFlows, &flow);
  if (noted == NULL || noted->cookie != own.cookie)
    bpf_map_update_elem(&leftFlows, &flow, &own, BPF_ANY);
  return true;
}

/// Incoming, of UDP.
SEC("socket")
int noteHeard(struct __sk_buff* packet) {
  struct FlowAddresses heard;
  if (!readAddresses(packet, &heard)) return false;
  const struct FlowAddresses flow = reversed(&heard);
  // To what the application, or the daemon, has begun.
  if (bpf_map_lookup_elem(&askedDatagrams, &flow) != NULL ||
      bpf_map_lookup_elem(&leftFlows, &flow) != NULL)
    return false;
  const __u64 now = bpf_ktime_get_ns();
  __u64* last = bpf_map_lookup_elem(&heardPeers, &flow);
  if (last != NULL) {
    *last = now;
  } else {
    bpf_map_update_elem(&heardPeers, &flow, &now, BPF_ANY);
  }
  return true;
}

static __always_inline __u32 placeOfConnector(__u64 socket) {
  return (socket * 0x9E3779B97F4A7C15ULL >> 32) % rememberedConnectors;
}

/// Outgoing, a SYN that is asked about: whose is it?
SEC("socket")
int noteAsked(struct __sk_buff* packet) {
  struct FlowAddresses flow;
  struct bpf_sock* const sender = packet->sk;
  if (sender == NULL || !readAddresses(packet, &flow)) return false;
  const __u32 place = placeOfAsked(&flow);
  struct AskedFlow* asked = bpf_map_lookup_elem(&askedFlows, &place);
  if (asked == NULL) return false;
  const __u64 version = asked->version;
  if (version % 2 != 0 ||
      __sync_val_compare_and_swap(&asked->version, version, version + 1) != version)
    return false;
  // An earlier flow's owner is never taken for this one's.
  asked->flow = flow;
  asked->process.number = 0;
  // Only a number that was read from memory may be calculated with.
  *(struct bpf_sock* volatile*)&asked->socket = sender;
  const __u64 socket = *(volatile __u64*)&asked->socket;
  const __u32 connectorPlace = placeOfConnector(socket);
  const struct Connector* connector = bpf_map_lookup_elem(&connectors, &connectorPlace);
  if (connector != NULL && connector->socket == socket) asked->process = connector->process;
  __sync_lock_test_and_set(&asked->version, version + 2);
  return true;
}

/// A taken SYN, on the relay's side.
SEC("socket")
int noteTaken(struct __sk_buff* packet) {
  struct FlowAddresses flow;
  if (!readAddresses(packet, &flow)) return false;
  const struct TakenFlow taken = {};
  return bpf_map_update_elem(&takenFlows, &flow, &taken, BPF_ANY) == 0;
}

static __always_inline bool isOfThisNetwork(const struct sock* socket) {
  return BPF_CORE_READ(socket, __sk_common.skc_net.net, ns.inum) == surroundings.networkNamespace;
}

static __always_inline struct FlowAddresses addressesOf(struct sock* socket) {
  return (struct FlowAddresses){
      .source = BPF_CORE_READ(socket, __sk_common.skc_rcv_saddr),
      .destination = BPF_CORE_READ(socket, __sk_common.skc_daddr),
      // The socket has given its port back by the time that it is closed, but not forgotten it.
      .sourcePort = BPF_CORE_READ((struct inet_sock*)socket, inet_sport),
      .destinationPort = BPF_CORE_READ(socket, __sk_common.skc_dport),
      .protocol = IPPROTO_TCP};
}

static __always_inline void noteConnector(struct sock* socket) {
  const __u32 place = placeOfConnector((__u64)socket);
  struct Connector* connector = bpf_map_lookup_elem(&connectors, &place);
  if (connector == NULL) return;
  // Another socket may have been at this address; whose it was says nothing of this one.
  connector->socket = 0;
  struct bpf_pidns_info process;
  if (bpf_get_ns_current_pid_tgid(surroundings.processNamespaceDevice,
                                  surroundings.processNamespace, &process, sizeof process) != 0 ||
      process.tgid == surroundings.daemon || !isOfThisNetwork(socket))
    return;
  const struct task_struct* task = (const void*)bpf_get_current_task();
  connector->socket = (__u64)socket;
  connector->process.number = process.tgid;
  connector->process.interface = BPF_CORE_READ(socket, __sk_common.skc_bound_dev_if);
  connector->process.startTime = BPF_CORE_READ(task, group_leader, start_boottime);
  connector->process.program = BPF_CORE_READ(task, self_exec_id);
}

/// One end of a flow is no more; false when no such flow is taken.
static __always_inline bool noteGone(const struct FlowAddresses* flow, __u64 end) {
  struct TakenFlow* taken = bpf_map_lookup_elem(&takenFlows, flow);
  if (taken == NULL) return false;
  if ((__sync_fetch_and_or(&taken->endsGone, end) | end) == bothGone)
    bpf_map_delete_elem(&takenFlows, flow);
  return true;
}

/// A socket of TCP changes its state: the socket, the old state, the new one.
SEC("raw_tp/inet_sock_set_state")
int stateChanges(struct bpf_raw_tracepoint_args* context) {
  struct sock* socket = (struct sock*)context->args[0];
  const __u64 oldState = context->args[1];
  const __u64 newState = context->args[2];
  if (newState == stateSynSent) noteConnector(socket);
  if (newState != stateClose || !isOfThisNetwork(socket)) return 0;
  // This is the last moment at which a socket still has its addresses.
  const struct FlowAddresses addresses = addressesOf(socket);
  if (oldState == stateSynSent) {
    // It never got a partner that could end after it.
    bpf_map_delete_elem(&takenFlows, &addresses);
    return 0;
  }
  // Two packets at once may each complete a handshake; the later connection is dropped, the first
  // lives.
  if (oldState == stateSynReceived) return 0;
  if (noteGone(&addresses, applicationGone)) return 0;
  const struct FlowAddresses flow = reversed(&addresses);
  noteGone(&flow, relayGone);
  return 0;
}
