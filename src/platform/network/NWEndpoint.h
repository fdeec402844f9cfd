#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tandor {

/// Where an outbound connection goes: a host and a port.
class NWEndpoint {
 public:
  /// A host as text. It is a name even when it reads like an address; whoever connects looks.
  class Host {
   public:
    [[nodiscard]] static Host name(std::string_view text) { return Host(text); }

    [[nodiscard]] const std::string& description() const noexcept { return text_; }
    friend bool operator==(const Host&, const Host&) = default;

   private:
    explicit Host(std::string_view text) : text_(text) {}
    std::string text_;
  };

  class Port {
   public:
    constexpr explicit Port(std::uint16_t number) noexcept : number_(number) {}
    /// Decimal digits only, 0 to 65535; absent for any other text.
    [[nodiscard]] static std::optional<Port> fromText(std::string_view text) noexcept;

    [[nodiscard]] constexpr std::uint16_t number() const noexcept { return number_; }
    [[nodiscard]] std::string description() const { return std::to_string(number_); }
    friend bool operator==(const Port&, const Port&) = default;

   private:
    std::uint16_t number_;
  };

  [[nodiscard]] static NWEndpoint hostPort(Host host, Port port) { return {std::move(host), port}; }

  [[nodiscard]] const Host& host() const noexcept { return host_; }
  [[nodiscard]] Port port() const noexcept { return port_; }
  /// HOST:PORT.
  [[nodiscard]] std::string description() const;

  friend bool operator==(const NWEndpoint&, const NWEndpoint&) = default;

 private:
  NWEndpoint(Host host, Port port) : host_(std::move(host)), port_(port) {}
  Host host_;
  Port port_;
};

}  // namespace tandor
