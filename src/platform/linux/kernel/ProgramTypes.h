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

/// What is known of a taken flow.
struct TakenFlow {
  __u64 cookie;    // of UDP: the application's socket
  __u64 endsGone;  // of TCP: which of its two sockets are no more
};

/// How many connecting sockets are remembered; a power of two.
enum { notedConnectors = 4096 };

/// Who connected the socket with this inode. Sockets share places: the latest has it.
struct NotedConnector {
  __u64 inode;
  __u64 process;    // its number where the daemon lives
  __u64 startTime;  // of the process, nanoseconds since the machine's start
  __u64 program;    // another one after each exec of the process
};

/// What the programs must know before they are loaded.
struct ProgramSurroundings {
  __u32 networkNamespace;
  __u32 daemon;
  __u64 processNamespaceDevice;
  __u64 processNamespace;
};
