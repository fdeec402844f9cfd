#pragma once

namespace tandor {

/// As many descriptors as the system lets a process have: each taken flow needs two. Before the
/// privileges are dropped.
void raiseDescriptorLimit();

/// Gives up for good every privilege but those that the daemon works with: network administration,
/// raw sockets for the packet filter's older back end, and looking into other users' processes.
/// Programs that it runs have no more, whatever their files say, and files that it makes are its
/// own user's alone. Nothing to drop is no failure.
void dropPrivileges();

/// Whether the calling thread may change how the network works.
[[nodiscard]] bool mayAdministerNetwork();

}  // namespace tandor
