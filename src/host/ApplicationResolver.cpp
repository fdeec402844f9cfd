#include "host/ApplicationResolver.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "host/RegularFile.h"
#include "host/Suggestions.h"
#include "platform/linux/application/Identifier.h"

namespace tandor::host {
namespace {

namespace fs = std::filesystem;

/// Scripts that are run by scripts: enough for anything sane.
constexpr int deepestScript = 4;

ResolvedApplication application(std::string identifier, std::string warning = {}) {
  return {{}, std::move(identifier), std::move(warning)};
}

bool isProgram(const fs::path& path) {
  std::error_code error;
  return fs::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

bool isFolder(const fs::path& path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

/// Whether `name` can be the name of one entry of a folder.
bool isPlainName(std::string_view name) {
  return !name.empty() && !name.contains('/') && name != "." && name != "..";
}

std::string lowered(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), [](unsigned char character) {
    return static_cast<char>(std::tolower(character));
  });
  return result;
}

/// What a script names behind #! as its interpreter: a path, or a command that env looks up. Empty
/// for a program of another kind.
std::string interpreterOf(const fs::path& program) {
  constexpr std::size_t longestHead = 256;
  const std::string text = readRegularFile(program, longestHead).value_or("");
  if (!text.starts_with("#!")) return {};
  std::istringstream line(text.substr(2, text.find('\n') - 2));
  std::string word;
  line >> word;
  if (fs::path(word).filename() != "env") return word;
  while (line >> word)
    if (!word.starts_with('-') && !word.contains('=')) return word;
  return {};
}

std::string scriptWarning(const fs::path& script, const fs::path& interpreter) {
  static const std::set<std::string> shells = {"sh", "dash", "bash", "zsh", "ksh", "busybox"};
  if (shells.contains(interpreter.filename().string())) {
    return fmt::format(
        "{} is a shell script. Most such scripts only start another program, whose flows are not "
        "{}'s: start it and look with `tandor apps` for what runs. Every shell script is meant "
        "now.",
        script.string(), interpreter.string());
  }
  return fmt::format("{} is a script, so its flows are those of {}: every script of it is meant.",
                     script.string(), interpreter.string());
}

}  // namespace

std::expected<ResolvedApplication, Failure> ApplicationResolver::resolve(
    std::string_view name) const {
  const auto named = [&](std::expected<ResolvedApplication, Failure> result) {
    if (result) result->name = name;
    return result;
  };
  if (name.starts_with(identifierPrefix) && name.size() > identifierPrefix.size()) {
    ResolvedApplication given = application(std::string(name.substr(identifierPrefix.size())));
    given.name = given.identifier;
    return given;
  }
  if (name.contains('/')) return named(resolveProgram(places_.workingFolder / name));
  if (!isPlainName(name)) return std::unexpected(notFound(name));
  for (const auto find : {&ApplicationResolver::findFlatpak, &ApplicationResolver::findCommand,
                          &ApplicationResolver::findSnap, &ApplicationResolver::findDesktopEntry})
    if (auto found = (this->*find)(name)) return named(std::move(*found));
  return std::unexpected(notFound(name));
}

ApplicationResolver::Found ApplicationResolver::findFlatpak(std::string_view name) const {
  for (const fs::path& folder : places_.flatpaks)
    if (isFolder(folder / name)) return application(std::string(name));
  return std::nullopt;
}

ApplicationResolver::Found ApplicationResolver::findSnap(std::string_view name) const {
  constexpr std::string_view prefix = "snap.";
  if (name.starts_with(prefix)) name.remove_prefix(prefix.size());
  for (const fs::path& folder : places_.snaps)
    if (name != "bin" && isPlainName(name) && isFolder(folder / name))
      return application(std::string(prefix) + std::string(name));
  return std::nullopt;
}

ApplicationResolver::Found ApplicationResolver::findCommand(std::string_view name) const {
  const auto command = commandNamed(name);
  if (!command) return std::nullopt;
  return resolveProgram(*command);
}

std::optional<fs::path> ApplicationResolver::commandNamed(std::string_view name) const {
  for (const fs::path& folder : places_.commands)
    if (fs::path candidate = folder / name; isProgram(candidate)) return candidate;
  return std::nullopt;
}

ApplicationResolver::Found ApplicationResolver::findDesktopEntry(std::string_view name) const {
  constexpr std::string_view suffix = ".desktop";
  const std::string_view id =
      name.ends_with(suffix) ? name.substr(0, name.size() - suffix.size()) : name;
  const auto entries = readDesktopEntries(places_.desktopFiles);
  if (const auto exact = std::ranges::find(entries, id, &DesktopEntry::id); exact != entries.end())
    return resolveEntry(*exact);

  const std::string wanted = lowered(name);
  std::vector<const DesktopEntry*> matches;
  for (const DesktopEntry& entry : entries) {
    const auto isNamedSo = [&](const std::string& text) { return lowered(text) == wanted; };
    if (isNamedSo(entry.id) || std::ranges::any_of(entry.names, isNamedSo))
      matches.push_back(&entry);
  }
  if (matches.empty()) return std::nullopt;
  std::set<std::string> identifiers;
  std::expected<ResolvedApplication, Failure> first = resolveEntry(*matches.front());
  for (const DesktopEntry* match : matches)
    if (const auto resolved = resolveEntry(*match)) identifiers.insert(resolved->identifier);
  if (identifiers.size() <= 1) return first;
  return wrongUsage(fmt::format("several applications are called \"{}\"", name),
                    fmt::format("name the one that you mean: {}", fmt::join(identifiers, ", ")));
}

std::expected<ResolvedApplication, Failure> ApplicationResolver::resolveEntry(
    const DesktopEntry& entry) const {
  if (!entry.flatpak.empty()) return application(entry.flatpak);
  if (!entry.snap.empty()) return application("snap." + entry.snap);
  if (entry.program.contains('/')) return resolveProgram(entry.program);
  if (const auto command = commandNamed(entry.program)) return resolveProgram(*command);
  return wrongUsage(
      fmt::format("the program of {}.desktop, {}, is not installed", entry.id, entry.program),
      "install it, or name the program that you mean by its path");
}

std::expected<ResolvedApplication, Failure> ApplicationResolver::resolveProgram(
    const fs::path& program, int depth) const {
  std::error_code error;
  const fs::path path = fs::canonical(program, error);
  if (error) return std::unexpected(notFound(program.string()));
  if (!isProgram(path)) {
    return wrongUsage(fmt::format("{} is not a program", program.string()),
                      "name an executable file, or the command that starts the application");
  }
  // A command of a snap is a link to the one launcher; its own name tells the snap.
  for (const fs::path& snaps : places_.snaps) {
    const std::string command = program.filename().string();
    if (program.parent_path() == snaps / "bin")
      return application("snap." + command.substr(0, command.find('.')));
    const fs::path below = path.lexically_relative(snaps);
    if (!below.empty() && *below.begin() != "..")
      return application("snap." + below.begin()->string());
  }
  for (const fs::path& flatpaks : places_.flatpaks)
    if (path.parent_path() == flatpaks.parent_path() / "exports/bin")
      return application(path.filename().string());

  const std::string interpreter = interpreterOf(path);
  if (interpreter.empty() || depth >= deepestScript) {
    std::string identifier = identifierOfExecutable(path.string());
    const bool isOwn =
        identifier == hostProgramIdentifier || identifier == providerProgramIdentifier;
    return application(std::move(identifier), isOwn ? "tandor's own flows are never taken." : "");
  }
  const auto command =
      interpreter.contains('/') ? std::optional(fs::path(interpreter)) : commandNamed(interpreter);
  auto resolved =
      command ? resolveProgram(*command, depth + 1) : std::unexpected(notFound(interpreter));
  if (!resolved) {
    Failure failure = resolved.error();
    failure.message =
        fmt::format("the interpreter of the script {}: {}", path.string(), failure.message);
    return std::unexpected(std::move(failure));
  }
  if (resolved->warning.empty()) resolved->warning = scriptWarning(path, resolved->identifier);
  return resolved;
}

Failure ApplicationResolver::notFound(std::string_view name) const {
  std::set<std::string> names;
  std::error_code error;
  for (const auto& folders : {places_.commands, places_.flatpaks, places_.snaps}) {
    for (const fs::path& folder : folders) {
      fs::directory_iterator entry(folder, error);
      for (; !error && entry != fs::directory_iterator(); entry.increment(error))
        names.insert(entry->path().filename().string());
    }
  }
  for (DesktopEntry& entry : readDesktopEntries(places_.desktopFiles)) {
    names.insert(std::move(entry.id));
    for (std::string& text : entry.names) names.insert(std::move(text));
  }
  const auto similar = suggestions(fs::path(name).filename().string(), names);
  return {fmt::format("there is no application \"{}\"", name),
          similar.empty()
              ? "name a path, a command, a Flatpak id, a snap or a desktop file; `tandor apps` "
                "shows what runs"
              : fmt::format("did you mean {}?", fmt::join(similar, ", ")),
          exitWrongUsage};
}

}  // namespace tandor::host
