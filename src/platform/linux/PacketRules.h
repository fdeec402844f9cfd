#pragma once

#include <cstdint>
#include <expected>
#include <string>

namespace tandor {

/// The queue that new flows wait in.
inline constexpr std::uint16_t packetQueueNumber = 77;

/// The ports of the loopback address where taken packets arrive.
struct ListenerPorts {
  std::uint16_t tcp = 0;
  std::uint16_t udp = 0;
};

/// Can the packet filter call the programs that have their names in `folder`?
[[nodiscard]] bool canCallPrograms(const std::string& folder);

/// Puts the packet filter's rules in force, in chains of our own, after clearing what an earlier
/// process left. They bring taken packets to `ports`, and call the programs in the folder
/// `programs`, or use connection tracking when that is empty. All of one table come at once or not
/// at all. Fails with the words for the user, naming the tool or the feature that is missing.
[[nodiscard]] std::expected<void, std::string> installPacketRules(const std::string& programs,
                                                                  const ListenerPorts& ports);

/// Puts back, a table at a time, what others have taken away of the rules that were installed with
/// the same arguments; the result is whether anything was missing. Fails with the words for the
/// user.
[[nodiscard]] std::expected<bool, std::string> restorePacketRules(const std::string& programs,
                                                                  const ListenerPorts& ports);

/// Whether the packet filter's tools keep the rules in the kernel's older tables, which tell nobody
/// of changes.
[[nodiscard]] bool arePacketRulesInOlderTables();

/// Takes away what asks about flows and brings them here; the first step of a removal. With the
/// last rule that redirects, the kernel drops every packet that waits in a queue: by then none
/// must.
[[nodiscard]] std::expected<void, std::string> stopAsking();

/// Takes every rule and chain of ours away; nothing there is no failure.
[[nodiscard]] std::expected<void, std::string> removePacketRules();

}  // namespace tandor
