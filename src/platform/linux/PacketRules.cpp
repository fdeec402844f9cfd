#include "platform/linux/PacketRules.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "platform/linux/Marks.h"
#include "platform/linux/Subprocess.h"

namespace tandor {
namespace {

// The rules, for iptables-restore. The jumps are appended, so that other software's marks apply
// first. A packet goes on from the queue at the next hook, so what follows a queueing rule in its
// chain never sees it. Of TCP every SYN is asked: a reused pair of addresses must not inherit an
// old answer; its destination is one machine, since connecting to another kind fails. That a flow
// is taken is remembered by its first packet on lo: few packets get there, and those of others pass
// one rule a hook. A taken packet that the routing policy does not bring to lo, since others have
// just changed theirs, is dropped, and counted there: to go past the provider in silence is worse.

/// Answers are remembered by our programs in the kernel.
constexpr std::string_view mangleWithPrograms = R"(*mangle
:TANDOR_OUTPUT - [0:0]
:TANDOR_TAKE - [0:0]
:TANDOR_ASK - [0:0]
:TANDOR_PRE - [0:0]
:TANDOR_HEAR - [0:0]
:TANDOR_STRAY - [0:0]
-A TANDOR_OUTPUT -m mark --mark {bypass:#x}/{mask:#x} -p udp -m bpf --object-pinned {programs}/noteOwn
-A TANDOR_OUTPUT -m mark --mark {bypass:#x}/{mask:#x} -j RETURN
-A TANDOR_OUTPUT -m bpf --object-pinned {programs}/isTaken -g TANDOR_TAKE
-A TANDOR_OUTPUT -p tcp --syn -g TANDOR_ASK
-A TANDOR_OUTPUT -p udp -m bpf --object-pinned {programs}/isAsked -g TANDOR_ASK
-A TANDOR_TAKE -j MARK --set-xmark {take:#x}/{mask:#x}
-A TANDOR_ASK -p udp -m addrtype ! --dst-type UNICAST -j RETURN
-A TANDOR_ASK -p tcp -m bpf --object-pinned {programs}/noteAsked
-A TANDOR_ASK -j NFQUEUE --queue-num {queue} --queue-bypass
-A TANDOR_PRE -p tcp ! --syn -j TPROXY --on-ip 127.0.0.1 --on-port {tcpPort}
-A TANDOR_PRE -p tcp -m bpf --object-pinned {programs}/noteTaken -j TPROXY --on-ip 127.0.0.1 --on-port {tcpPort}
-A TANDOR_PRE -p udp -j TPROXY --on-ip 127.0.0.1 --on-port {udpPort}
-A TANDOR_HEAR -m bpf --object-pinned {programs}/noteHeard
-A TANDOR_STRAY -m addrtype --src-type LOCAL -j DROP
-A OUTPUT ! -o lo -j TANDOR_OUTPUT
-A POSTROUTING ! -o lo -m mark --mark {take:#x}/{mask:#x} -j TANDOR_STRAY
-A PREROUTING -i lo -m mark --mark {take:#x}/{mask:#x} -j TANDOR_PRE
-A PREROUTING ! -i lo -p udp -m addrtype --dst-type LOCAL -j TANDOR_HEAR
COMMIT
)";

/// Answers are marks of tracked connections. LEAVE is written before the packet is queued: should
/// that be the answer, the flow costs nothing from then on.
constexpr std::string_view mangleWithTracking = R"(*mangle
:TANDOR_OUTPUT - [0:0]
:TANDOR_OWN - [0:0]
:TANDOR_ASK - [0:0]
:TANDOR_PRE - [0:0]
:TANDOR_STRAY - [0:0]
-A TANDOR_OUTPUT -o lo -j RETURN
-A TANDOR_OUTPUT -m mark --mark {bypass:#x}/{mask:#x} -g TANDOR_OWN
-A TANDOR_OUTPUT -p tcp --syn -g TANDOR_ASK
-A TANDOR_OUTPUT -m connmark --mark {leave:#x}/{mask:#x} -j RETURN
-A TANDOR_OUTPUT -m connmark --mark {take:#x}/{mask:#x} -m conntrack --ctdir ORIGINAL -j MARK --set-xmark {take:#x}/{mask:#x}
-A TANDOR_OUTPUT -m connmark --mark {take:#x}/{mask:#x} -j RETURN
-A TANDOR_OUTPUT -p udp -m connmark --mark {bypass:#x}/{mask:#x} -g TANDOR_ASK
-A TANDOR_OUTPUT -p udp -m conntrack --ctstate NEW --ctdir ORIGINAL -g TANDOR_ASK
-A TANDOR_OWN -p udp -j CONNMARK --set-xmark {bypass:#x}/{mask:#x}
-A TANDOR_ASK -p udp -m addrtype ! --dst-type UNICAST -j RETURN
-A TANDOR_ASK -j CONNMARK --set-xmark {leave:#x}/{mask:#x}
-A TANDOR_ASK -j NFQUEUE --queue-num {queue} --queue-bypass
-A TANDOR_PRE -p tcp --syn -j CONNMARK --set-xmark {take:#x}/{mask:#x}
-A TANDOR_PRE -p tcp -j TPROXY --on-ip 127.0.0.1 --on-port {tcpPort}
-A TANDOR_PRE -m connmark ! --mark {take:#x}/{mask:#x} -j CONNMARK --set-xmark {take:#x}/{mask:#x}
-A TANDOR_PRE -p udp -j TPROXY --on-ip 127.0.0.1 --on-port {udpPort}
-A TANDOR_STRAY -m addrtype --src-type LOCAL -j DROP
-A OUTPUT -j TANDOR_OUTPUT
-A POSTROUTING ! -o lo -m mark --mark {take:#x}/{mask:#x} -j TANDOR_STRAY
-A PREROUTING -i lo -m mark --mark {take:#x}/{mask:#x} -j TANDOR_PRE
COMMIT
)";

constexpr std::string_view filter = R"(*filter
:TANDOR_REFUSE - [0:0]
-A TANDOR_REFUSE -p tcp -j REJECT --reject-with tcp-reset
-A TANDOR_REFUSE -j REJECT --reject-with icmp-port-unreachable
-A OUTPUT -m mark --mark {refuse:#x}/{mask:#x} -j TANDOR_REFUSE
COMMIT
)";

/// One table's part of the rules, for iptables-restore.
struct TableRules {
  std::string table;
  std::string script;
};

std::array<TableRules, 2> rules(const std::string& programs, const ListenerPorts& ports) {
  const auto fill = [&](std::string_view script) {
    return fmt::format(fmt::runtime(script), fmt::arg("programs", programs),
                       fmt::arg("bypass", bypassMark), fmt::arg("leave", leaveMark),
                       fmt::arg("take", takeMark), fmt::arg("refuse", refuseMark),
                       fmt::arg("mask", markMask), fmt::arg("queue", packetQueueNumber),
                       fmt::arg("tcpPort", ports.tcp), fmt::arg("udpPort", ports.udp));
  };
  return {{{"mangle", fill(programs.empty() ? mangleWithTracking : mangleWithPrograms)},
           {"filter", fill(filter)}}};
}

std::expected<SubprocessResult, std::string> run(const std::vector<std::string>& arguments,
                                                 const std::string& input = {}) {
  auto result = runProgram(arguments, input);
  if (!result) {
    if (result.error() == ENOENT) {
      return std::unexpected(
          fmt::format("{} is not installed; install the package iptables", arguments.front()));
    }
    return std::unexpected(fmt::format("cannot run {}: {}", arguments.front(),
                                       std::generic_category().message(result.error())));
  }
  return std::move(*result);
}

std::expected<void, std::string> restore(const std::string& script) {
  // Somebody else may hold the older tables' lock, but not for ever.
  const auto result = run({"iptables-restore", "--noflush", "-w", "5"}, script);
  if (!result) return std::unexpected(result.error());
  if (result->status != 0) {
    return std::unexpected(
        fmt::format("the packet filter refused the rules (iptables-restore: {}); the kernel needs "
                    "the modules xt_NFQUEUE, xt_TPROXY, xt_connmark, xt_conntrack, xt_mark, "
                    "xt_addrtype and ipt_REJECT",
                    result->errors.substr(0, result->errors.find_last_not_of('\n') + 1)));
  }
  return {};
}

/// What one table has of ours.
struct Ours {
  std::string jumps;  // as commands that delete them; the chains, too
  std::string flushes;
  std::string deletions;
  std::size_t rules = 0;
};

/// Calls `visit` with each line.
template <typename Visit>
void forEachLine(std::string_view text, Visit visit) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    visit(line);
  }
}

std::expected<Ours, std::string> findOurs(const std::string& table) {
  const auto saved = run({"iptables-save", "-t", table});
  if (!saved) return std::unexpected(saved.error());
  if (saved->status != 0) {
    return std::unexpected(
        fmt::format("the packet filter does not show its rules (iptables-save: {})",
                    saved->errors.substr(0, saved->errors.find_last_not_of('\n') + 1)));
  }
  Ours ours;
  forEachLine(saved->output, [&](std::string_view line) {
    if (line.starts_with(":TANDOR_")) {
      const std::string_view chain = line.substr(1, line.find(' ') - 1);
      ours.flushes += fmt::format("-F {}\n", chain);
      ours.deletions += fmt::format("-X {}\n", chain);
    } else if (line.starts_with("-A TANDOR_")) {
      ++ours.rules;
    } else if (line.starts_with("-A ") && line.contains("-j TANDOR_")) {
      ++ours.rules;
      ours.jumps += fmt::format("-D {}\n", line.substr(3));
    }
  });
  return ours;
}

std::expected<void, std::string> removeFrom(const std::string& table) {
  const auto ours = findOurs(table);
  if (!ours) return std::unexpected(ours.error());
  if (ours->jumps.empty() && ours->flushes.empty()) return {};
  // The jumps go first: from that moment on no packet meets a chain of ours.
  return restore(
      fmt::format("*{}\n{}{}{}COMMIT\n", table, ours->jumps, ours->flushes, ours->deletions));
}

}  // namespace

bool canCallPrograms(const std::string& folder) {
  constexpr std::string_view trial = R"(*mangle
:TANDOR_TRIAL - [0:0]
-A TANDOR_TRIAL -m bpf --object-pinned {}/isTaken
COMMIT
)";
  const bool canCall = restore(fmt::format(fmt::runtime(trial), folder)).has_value();
  return removePacketRules().has_value() && canCall;
}

std::expected<void, std::string> installPacketRules(const std::string& programs,
                                                    const ListenerPorts& ports) {
  if (auto removed = removePacketRules(); !removed) return removed;
  std::string all;
  for (const TableRules& part : rules(programs, ports)) all += part.script;
  auto installed = restore(all);
  // One table may have been committed before the other failed.
  if (!installed) static_cast<void>(removePacketRules());
  return installed;
}

std::expected<bool, std::string> restorePacketRules(const std::string& programs,
                                                    const ListenerPorts& ports) {
  bool wasIncomplete = false;
  for (const TableRules& part : rules(programs, ports)) {
    const auto ours = findOurs(part.table);
    if (!ours) return std::unexpected(ours.error());
    std::size_t expected = 0;
    forEachLine(part.script, [&](std::string_view line) { expected += line.starts_with("-A "); });
    if (ours->rules == expected) continue;
    wasIncomplete = true;
    // In one step, without a moment in which what is still there is not: the head of a chain that
    // exists empties it.
    const std::size_t head = part.script.find('\n') + 1;
    const std::string script = part.script.substr(0, head) + ours->jumps + part.script.substr(head);
    if (auto restored = restore(script); !restored) return std::unexpected(restored.error());
  }
  return wasIncomplete;
}

bool arePacketRulesInOlderTables() {
  const auto version = run({"iptables-restore", "--version"});
  return version && !version->output.contains("nf_tables");
}

std::expected<void, std::string> stopAsking() {
  const auto ours = findOurs("mangle");
  if (!ours) return std::unexpected(ours.error());
  std::string script;
  forEachLine(ours->jumps, [&](std::string_view line) {
    if (line.starts_with("-D OUTPUT ")) script += fmt::format("{}\n", line);
  });
  return script.empty() ? std::expected<void, std::string>()
                        : restore(fmt::format("*mangle\n{}COMMIT\n", script));
}

std::expected<void, std::string> removePacketRules() {
  // Between a look and a removal others may take something away that is then not there to remove.
  constexpr int mostAttempts = 3;
  for (const std::string table : {"mangle", "filter"}) {
    auto removed = removeFrom(table);
    for (int attempt = 1; !removed && attempt < mostAttempts; ++attempt)
      removed = removeFrom(table);
    if (!removed) return removed;
  }
  return {};
}

}  // namespace tandor
