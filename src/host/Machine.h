#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tandor::host {

/// What the doctor may look at. Tests make one of their own.
struct Machine {
  std::filesystem::path root = "/";
  /// Standard output of a program that only looks; absent when it is not there or fails.
  std::function<std::optional<std::string>(std::vector<std::string>)> outputOf;
  /// The name of an interface's driver; empty when the kernel does not tell.
  std::function<std::string(const std::string& interface)> driverOf;

  [[nodiscard]] static Machine thisOne();

  /// The whole text of the file at an absolute path; absent when it cannot be read.
  [[nodiscard]] std::optional<std::string> read(const std::string& path) const;
  [[nodiscard]] bool exists(const std::string& path) const;
};

/// A network interface that leads out.
struct Uplink {
  std::string name;
  unsigned metric;  // of its best default route; a smaller one wins
};

/// The interfaces with an IPv4 default route, best route first.
[[nodiscard]] std::vector<Uplink> uplinks(const Machine& machine);

/// The interface that direct connections are bound to: of those above the best wired one, else
/// wireless, else cellular; bridges, bonds, VLANs and the like as what lies below them, other
/// virtual ones never. Absent when there is none.
[[nodiscard]] std::optional<std::string> directInterface(const Machine& machine);

}  // namespace tandor::host
