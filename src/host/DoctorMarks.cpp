// Packet marks of other software that get in the way of ours.

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string_view>

#include <fmt/format.h>

#include "host/Doctor.h"

namespace tandor::host {
namespace {

using Result = Finding::Result;

constexpr std::uint32_t ourBits = 0x70000000;

/// The number at the front of `text`, decimal or with 0x.
std::optional<std::uint32_t> leadingNumber(std::string_view text) {
  const int base = text.starts_with("0x") ? 16 : 10;
  if (base == 16) text.remove_prefix(2);
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc()) return std::nullopt;
  return number;
}

/// The text behind the first `key` in `line`; absent without one.
std::optional<std::string_view> behind(std::string_view line, std::string_view key) {
  const std::size_t at = line.find(key);
  if (at == std::string_view::npos) return std::nullopt;
  return line.substr(at + key.size());
}

/// The bits that a rule in the form of iptables-save changes in the marks of packets.
std::uint32_t bitsOfRule(std::string_view rule) {
  constexpr std::uint32_t allBits = ~std::uint32_t{0};
  if (!rule.contains("-j MARK ") && !rule.contains("--restore-mark")) return 0;
  if (const auto operation = behind(rule, "--set-xmark ")) {
    const auto value = leadingNumber(*operation);
    const auto mask = behind(*operation, "/");
    return value.value_or(0) | (mask ? leadingNumber(*mask).value_or(allBits) : allBits);
  }
  if (rule.contains("--restore-mark")) {
    const auto mask = behind(rule, "--mask ");
    const auto packetMask = behind(rule, "--ctmask ");
    return leadingNumber(packetMask.value_or(mask.value_or(""))).value_or(allBits);
  }
  return 0;
}

/// The bits that a statement of nftables changes: `mark set EXPRESSION`.
std::uint32_t bitsOfStatement(std::string_view line) {
  const auto expression = behind(line, "meta mark set ");
  if (!expression) return 0;
  // A value alone replaces the whole mark; behind `mark` it is combined with what was there.
  if (!expression->contains("mark")) return ~std::uint32_t{0};
  std::uint32_t bits = 0;
  std::istringstream words{std::string(*expression)};
  std::string operation;
  for (std::string word; words >> word; operation = word) {
    const auto number = leadingNumber(word);
    if (!number) continue;
    const bool clears = operation == "and" || operation == "&";
    bits |= clears ? ~*number : *number;
  }
  return bits;
}

/// The first rule of iptables that changes our bits.
std::optional<std::string> foreignRule(const std::string& saved) {
  std::istringstream lines(saved);
  for (std::string line; std::getline(lines, line);)
    if (!line.starts_with("-A TANDOR_") && (bitsOfRule(line) & ourBits) != 0) return line;
  return std::nullopt;
}

/// The first statement in a table of nftables that changes our bits; tables of iptables are in the
/// other list already.
std::optional<std::string> foreignStatement(const std::string& ruleset) {
  std::istringstream lines(ruleset);
  bool isOfInterest = false;
  for (std::string line; std::getline(lines, line);) {
    std::string_view text(line);
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    if (text.starts_with("table ")) {
      constexpr std::string_view others[] = {"table ip filter", "table ip mangle", "table ip nat",
                                             "table ip raw",    "table ip6 ",      "table bridge ",
                                             "table arp "};
      isOfInterest = std::ranges::none_of(
          others, [&](std::string_view other) { return text.starts_with(other); });
    }
    if (isOfInterest && (bitsOfStatement(text) & ourBits) != 0) return std::string(text);
  }
  return std::nullopt;
}

}  // namespace

Finding checkMarks(const Machine& machine) {
  const auto saved = machine.outputOf({"iptables-save"});
  const auto ruleset = machine.outputOf({"nft", "list", "ruleset"});
  if (!saved && !ruleset) {
    return {"packet marks", Result::unknown, "the rules of the packet filter cannot be read",
            "run it as root: sudo tandor doctor"};
  }
  auto rule = foreignRule(saved.value_or(""));
  if (!rule) rule = foreignStatement(ruleset.value_or(""));
  if (!rule) return {"packet marks", Result::good, "nobody else uses bits 0x70000000", ""};
  return {"packet marks", Result::warning,
          fmt::format("a rule of other software changes bits 0x70000000: {}", *rule),
          "give that software a mask that leaves them out, such as 0x0fffffff"};
}

}  // namespace tandor::host
