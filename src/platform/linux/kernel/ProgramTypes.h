#pragma once

// What the daemon and its programs in the kernel share; both languages read it. Plain integers
// only: a map's keys and values are compared and copied as bytes.

#include <linux/types.h>

/// The addresses of a flow as its packets carry them, in network byte order, the application's side
/// first.
struct FlowAddresses {
  __u32 source;
  __u32 destination;
  __u16 sourcePort;
  __u16 destinationPort;
  __u32 protocol;
};

/// What is known of a UDP flow that has its answer.
struct AnsweredDatagrams {
  __u64 cookie;    // of the application's socket
  __u64 answered;  // so many datagrams were asked about and have gone on
};

/// What is known of a taken flow.
struct TakenFlow {
  struct AnsweredDatagrams datagrams;  // of UDP
  __u64 endsGone;                      // of TCP: which of its two sockets are no more
};

/// How many connecting sockets are remembered; a power of two.
enum { rememberedConnectors = 4096 };

/// A process that connects a socket.
struct ConnectingProcess {
  __u32 number;     // where the daemon lives
  __u32 interface;  // that the socket is bound to, or 0
  __u64 startTime;  // nanoseconds since the machine's start
  __u64 program;    // another one after each exec
};

/// Whose connection is asked about. Flows share places: the latest has it.
struct AskedFlow {
  __u64 version;  // odd while it is written
  __u64 socket;   // its address
  struct FlowAddresses flow;
  struct ConnectingProcess process;  // number 0 when it was not seen
};

/// The place of a flow among those that are asked about.
static inline __u32 placeOfAsked(const struct FlowAddresses* flow) {
  // Neighbouring ports of a machine come one after the other: the lower byte is the second one.
  const __u32 port = flow->sourcePort >> 8 | (flow->sourcePort & 0xFFU) << 8;
  return (port ^ flow->destination >> 16 ^ flow->destination >> 24) % rememberedConnectors;
}

/// What the programs must know before they are loaded.
struct ProgramSurroundings {
  __u32 networkNamespace;
  __u32 daemon;
  __u64 processNamespaceDevice;
  __u64 processNamespace;
};
