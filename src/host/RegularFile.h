#pragma once

#include <cstddef>
#include <expected>
#include <filesystem>
#include <string>

namespace tandor::host {

/// The first `most` bytes of the file at `path`, or fewer where it ends before; links are followed.
/// Nothing but a regular file is opened: whoever may put files there, as any user may into their
/// own home, could make it a FIFO, which keeps a reader waiting, a terminal or a device. Fails with
/// what is wrong.
[[nodiscard]] std::expected<std::string, std::string> readRegularFile(
    const std::filesystem::path& path, std::size_t most);

}  // namespace tandor::host
