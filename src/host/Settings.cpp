#include "host/Settings.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include <fmt/format.h>

#include "host/ApplicationResolver.h"
#include "platform/foundation/JSON.h"
#include "platform/foundation/Text.h"

namespace tandor::host {
namespace {

template <typename Value>
std::optional<Value> named(const auto& names, std::string_view name) {
  const auto found = std::ranges::find(names, name);
  if (found == std::end(names)) return std::nullopt;
  return static_cast<Value>(found - std::begin(names));
}

bool isHostCharacter(char character) {
  const auto value = static_cast<unsigned char>(character);
  return value > ' ' && value != 0x7F &&
         std::string_view("/@?#[]\\\"").find(character) == std::string_view::npos;
}

}  // namespace

std::optional<Mode> modeNamed(std::string_view name) {
  return named<Mode>(modeNames, name);
}

std::string_view nameOf(Mode mode) {
  return modeNames[static_cast<std::size_t>(mode)];
}

std::optional<ConnectReply> connectReplyNamed(std::string_view name) {
  return named<ConnectReply>(connectReplyNames, name);
}

std::expected<Proxy, std::string> Proxy::parse(std::string_view text) {
  if (const std::size_t end = text.find("://"); end != std::string_view::npos) {
    const std::string_view scheme = text.substr(0, end);
    if (scheme != "http")
      return std::unexpected(fmt::format("a proxy that speaks {} is not supported", scheme));
    text.remove_prefix(end + 3);
    if (text.ends_with('/')) text.remove_suffix(1);
  }
  if (text.contains('@')) return std::unexpected("a user name and password are not supported");
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return std::unexpected("the port is missing");
  std::string_view host = text.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  } else if (host.contains(':')) {
    return std::unexpected("an IPv6 address needs brackets and a port behind them");
  }
  if (host.empty()) return std::unexpected("the host is missing");
  if (!std::ranges::all_of(host, isHostCharacter))
    return std::unexpected("the host has characters that no host name has");
  const auto port = parseDecimal(text.substr(colon + 1), std::numeric_limits<std::uint16_t>::max());
  if (!port || *port == 0) return std::unexpected("the port is no number from 1 to 65535");
  return Proxy{std::string(host), static_cast<std::uint16_t>(*port)};
}

std::string Proxy::description() const {
  const bool isAddress = host.contains(':');
  return fmt::format("{}{}{}:{}", isAddress ? "[" : "", host, isAddress ? "]" : "", port);
}

Settings overlay(Settings upper, const Settings& lower) {
  const auto complete = [](auto& value, const auto& other) {
    if (!value) value = other;
  };
  complete(upper.mode, lower.mode);
  complete(upper.apps, lower.apps);
  complete(upper.proxy, lower.proxy);
  complete(upper.log, lower.log);
  complete(upper.debug, lower.debug);
  complete(upper.enable, lower.enable);
  complete(upper.connectReply, lower.connectReply);
  return upper;
}

Settings settingsOf(const ProviderValues& values) {
  const auto text = [&](const std::string& key) -> std::optional<std::string> {
    const auto entry = values.find(key);
    return entry == values.end() ? std::nullopt : std::optional(entry->second);
  };
  Settings settings;
  settings.mode = modeNamed(text("mode").value_or(""));
  if (const auto identifiers = decodeJSONStringList(text("appIds").value_or(""))) {
    settings.apps.emplace();
    for (const std::string& identifier : *identifiers)
      settings.apps->push_back({std::string(identifierPrefix) + identifier, {}});
  }
  const auto port = parseDecimal(text("proxyPort").value_or(""), 65535);
  if (const auto host = text("proxyHostname"); host && port)
    settings.proxy = Proxy{*host, static_cast<std::uint16_t>(*port)};
  settings.log = text("logPath").value_or("");
  settings.debug = text("debug") == "true";
  settings.enable = text("enable") == "true";
  settings.connectReply =
      text("connectReply") == "status" ? ConnectReply::status : ConnectReply::phrase;
  return settings;
}

}  // namespace tandor::host
