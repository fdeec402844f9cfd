#include "host/SentConfiguration.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/JSONValues.h"
#include "host/RegularFile.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor::host {
namespace {

using nlohmann::json;

std::string pathBeside(const std::string& controlPath) {
  return controlPath + ".sent";
}

std::unexpected<Failure> cannotKeep(const std::string& path, int error) {
  return fail(fmt::format("cannot keep what was sent in {}: {}", path,
                          std::generic_category().message(error)),
              "give every option at the next `tandor update`");
}

}  // namespace

std::expected<void, Failure> keepSent(const std::string& controlPath, pid_t provider,
                                      const ProviderValues& values) {
  const std::string path = pathBeside(controlPath);
  const std::string text = jsonLine({{"provider", provider}, {"values", values}});
  // A new file each time, so that nobody ever reads a part, or has it open from before.
  std::string pattern = path + ".XXXXXX";
  const FileDescriptor file(::mkostemp(pattern.data(), O_CLOEXEC));
  if (!file.isOpen()) return cannotKeep(path, errno);
  const bool isWritten =
      ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (!isWritten || ::rename(pattern.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(pattern.c_str());
    return cannotKeep(path, error);
  }
  return {};
}

std::optional<ProviderValues> lastSent(const std::string& controlPath, pid_t provider) {
  constexpr std::size_t longest = std::size_t{1} << 20;
  const auto text = readRegularFile(pathBeside(controlPath), longest);
  const json kept = json::parse(text.value_or(""), nullptr, /*allow_exceptions=*/false);
  if (!kept.is_object() || numberMember(kept, "provider") != provider) return std::nullopt;
  const auto values = kept.find("values");
  if (values == kept.end() || !values->is_object()) return std::nullopt;
  ProviderValues sent;
  for (const auto& [key, value] : values->items()) {
    if (!value.is_string()) return std::nullopt;
    sent.emplace(key, value.get<std::string>());
  }
  return sent;
}

void forgetSent(const std::string& controlPath) {
  ::unlink(pathBeside(controlPath).c_str());
}

}  // namespace tandor::host
