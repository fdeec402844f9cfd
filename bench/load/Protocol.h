#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace tandor::load {

/// What a flow is for. Its first bytes say it, so that the same flow may come natively, through a
/// transparent relay or through a tunnel.
enum class Operation : std::uint8_t {
  down = 1,  // the server sends `size` bytes, then ends
  up,    // the client sends `size` bytes; the server answers with how many were right, then ends
  flow,  // the server sends `size` bytes, all at once, then ends
  echo,  // the server sends back whatever comes
  idle,  // the server sends one byte, then nothing
};

struct Command {
  Operation operation = Operation::flow;
  bool isChecked = false;
  std::uint64_t size = 0;
};

/// Without an end.
inline constexpr std::uint64_t endless = ~std::uint64_t{0};

/// A flow's first bytes are a recorded TLS ClientHello whose random carries the command: relays
/// that look for a server name find one.
class Hello {
 public:
  static constexpr std::size_t size = 517;
  explicit Hello(const std::string& path);
  [[nodiscard]] std::string with(const Command& command) const;
  /// Absent when these `size` bytes carry none.
  [[nodiscard]] static std::optional<Command> commandIn(std::string_view bytes);

 private:
  std::string recorded_;
};

/// The bytes of checked transfers: each depends on its position, and no two places that a relay
/// could mix up look alike. The directions are at different phases of it.
class Pattern {
 public:
  static constexpr std::size_t longestPiece = std::size_t{256} * 1024;
  static constexpr std::uint64_t downPhase = 0;
  static constexpr std::uint64_t upPhase = 500'009;
  Pattern();
  /// At least `longestPiece` bytes.
  [[nodiscard]] const char* at(std::uint64_t position) const { return &bytes_[position % period]; }
  [[nodiscard]] bool matches(std::span<const char> piece, std::uint64_t position) const;

 private:
  static constexpr std::size_t period = 1'048'573;  // a prime
  std::string bytes_;
};

/// What the server has received so far, in memory that the client of a measurement shares: its
/// own sends may still be on their way.
struct Counters {
  volatile std::uint64_t bytes;
  volatile std::uint64_t datagrams;
  /// Of a file that is made when it is missing; lives as long as the program.
  [[nodiscard]] static Counters& shared(const std::string& path);
};

/// Ends the program, with errno's text.
[[noreturn]] void fail(const std::string& what);

}  // namespace tandor::load
