#pragma once

#include <cstdint>
#include <expected>
#include <string>

namespace tandor {

/// Where the packet filter sends what it finds: fixed numbers, so that a later process can clear up
/// after an earlier one.
inline constexpr std::uint16_t packetQueueNumber = 77;
inline constexpr std::uint16_t transparentPort = 15001;

/// Can the packet filter call the programs that have their names in `folder`?
[[nodiscard]] bool canCallPrograms(const std::string& folder);

/// Puts the packet filter's rules in force, in chains of our own, after clearing what an earlier
/// process left. They call the programs in the folder `programs`, or use connection tracking when
/// that is empty. All of one table come at once or not at all. Fails with the words for the user,
/// naming the tool or the feature that is missing.
[[nodiscard]] std::expected<void, std::string> installPacketRules(const std::string& programs);

/// Puts back, a table at a time, what others have taken away of the rules that were installed with
/// the same `programs`; the result is whether anything was missing. Fails with the words for the
/// user.
[[nodiscard]] std::expected<bool, std::string> restorePacketRules(const std::string& programs);

/// Whether the packet filter's tools keep the rules in the kernel's older tables, which tell nobody
/// of changes.
[[nodiscard]] bool arePacketRulesInOlderTables();

/// Takes every rule and chain of ours away; nothing there is no failure.
[[nodiscard]] std::expected<void, std::string> removePacketRules();

}  // namespace tandor
