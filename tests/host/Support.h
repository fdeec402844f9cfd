#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace tandor::host::test {

/// A folder that lasts as long as its owner.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = testing::TempDir() + "tandor-XXXXXX";
    path_ = std::filesystem::canonical(::mkdtemp(pattern.data()));
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
  [[nodiscard]] std::string operator/(std::string_view name) const { return path_ / name; }
  /// Writes a file, and makes the folders above it.
  void write(std::string_view name, std::string_view text, bool isProgram = false) const {
    const std::filesystem::path path = path_ / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
    if (isProgram) std::filesystem::permissions(path, std::filesystem::perms::owner_all);
  }

 private:
  std::filesystem::path path_;
};

}  // namespace tandor::host::test
