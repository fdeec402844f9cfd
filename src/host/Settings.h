#pragma once

#include <cstdint>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tandor::host {

enum class Mode : std::uint8_t { webProxy, directlyWhiteList, tunnelWhiteList };
inline constexpr std::string_view modeNames[] = {"webProxy", "directlyWhiteList",
                                                 "tunnelWhiteList"};
[[nodiscard]] std::optional<Mode> modeNamed(std::string_view name);
[[nodiscard]] std::string_view nameOf(Mode mode);

/// How a proxy's answer to CONNECT is judged: by its status code, or by the customary phrase.
enum class ConnectReply : std::uint8_t { status, phrase };
inline constexpr std::string_view connectReplyNames[] = {"status", "phrase"};
[[nodiscard]] std::optional<ConnectReply> connectReplyNamed(std::string_view name);

/// An HTTP proxy.
struct Proxy {
  std::string host;
  std::uint16_t port;

  /// Reads HOST:PORT, an IPv6 address in brackets, also behind http://. Fails with what is wrong.
  [[nodiscard]] static std::expected<Proxy, std::string> parse(std::string_view text);
  [[nodiscard]] std::string description() const;
  friend bool operator==(const Proxy&, const Proxy&) = default;
};

/// An application as somebody named it, and where: empty for the command line, else FILE:LINE.
struct NamedApplication {
  std::string name;
  std::string origin;
  friend bool operator==(const NamedApplication&, const NamedApplication&) = default;
};

/// What one source says of the configuration: the command line, a file, or what was sent last.
struct Settings {
  std::optional<Mode> mode;
  std::optional<std::vector<NamedApplication>> apps;
  std::optional<Proxy> proxy;
  std::optional<std::string> log;  // path of a file; empty for none
  std::optional<bool> debug;
  std::optional<bool> enable;
  std::optional<ConnectReply> connectReply;

  friend bool operator==(const Settings&, const Settings&) = default;
};

/// Each value of `upper`, and those of `lower` that it leaves out.
[[nodiscard]] Settings overlay(Settings upper, const Settings& lower);

/// A provider's configuration: keys and values, all texts.
using ProviderValues = std::map<std::string, std::string>;

/// What values that were sent say, the identifiers named so that they stay what they are.
[[nodiscard]] Settings settingsOf(const ProviderValues& values);

}  // namespace tandor::host
