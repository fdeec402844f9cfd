#pragma once

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/Failure.h"

namespace tandor::host {

/// A new folder that only this user can enter, removed with all that is in it.
class PrivateFolder {
 public:
  /// Makes NAME-PROCESS-RANDOM in the first of `places` where that is possible and where the paths
  /// of sockets in it stay short enough. Also removes what commands that were killed left there.
  [[nodiscard]] static std::expected<PrivateFolder, Failure> make(
      std::string_view name, const std::vector<std::filesystem::path>& places);

  PrivateFolder(PrivateFolder&& other) noexcept : path_(std::exchange(other.path_, {})) {}
  PrivateFolder& operator=(PrivateFolder&& other) noexcept {
    std::swap(path_, other.path_);
    return *this;
  }
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;
  ~PrivateFolder();

  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

 private:
  explicit PrivateFolder(std::filesystem::path path) : path_(std::move(path)) {}
  std::filesystem::path path_;
};

/// Where folders of running programs belong: the system's for root, else the user's own.
[[nodiscard]] std::vector<std::filesystem::path> runtimePlaces();

/// The folders that `name` was given to in `place`, of commands that still run.
[[nodiscard]] std::vector<std::filesystem::path> liveFolders(const std::filesystem::path& place,
                                                             std::string_view name);

}  // namespace tandor::host
