#include "host/DesktopEntries.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <system_error>
#include <utility>

#include "host/RegularFile.h"

namespace tandor::host {
namespace {

namespace fs = std::filesystem;

constexpr int deepestFolder = 4;
constexpr std::size_t longestEntry = std::size_t{256} * 1024;  // with names in every language

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

/// The words of a command line, with double quotes and backslashes as desktop files have them.
std::vector<std::string> words(std::string_view command) {
  std::vector<std::string> list;
  std::string word;
  bool isInWord = false;
  bool isQuoted = false;
  for (std::size_t index = 0; index < command.size(); ++index) {
    const char character = command[index];
    if (character == '\\' && index + 1 < command.size()) {
      word += command[++index];
      isInWord = true;
    } else if (character == '"') {
      isQuoted = !isQuoted;
      isInWord = true;
    } else if ((character == ' ' || character == '\t') && !isQuoted) {
      if (std::exchange(isInWord, false)) list.push_back(std::exchange(word, {}));
    } else {
      word += character;
      isInWord = true;
    }
  }
  if (isInWord) list.push_back(std::move(word));
  return list;
}

/// The first word behind `command` and `verb` that is no option.
std::string argumentBehind(const std::vector<std::string>& line, std::string_view command,
                           std::string_view verb) {
  if (line.size() < 3 || fs::path(line[0]).filename() != command || line[1] != verb) return {};
  const auto argument = std::find_if(
      line.begin() + 2, line.end(), [](const std::string& word) { return !word.starts_with('-'); });
  return argument == line.end() ? std::string() : *argument;
}

/// Drops `env` and the settings behind it, which come before the program itself.
void dropEnvironment(std::vector<std::string>& line) {
  if (line.empty() || fs::path(line.front()).filename() != "env") return;
  const auto program = std::find_if(line.begin() + 1, line.end(), [](const std::string& word) {
    return !word.starts_with('-') && !word.contains('=');
  });
  line.erase(line.begin(), program);
}

}  // namespace

std::optional<DesktopEntry> DesktopEntry::parse(std::string_view text, std::string id) {
  DesktopEntry entry;
  entry.id = std::move(id);
  std::string_view command;
  bool isEntry = false;
  bool isHidden = false;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.starts_with('[')) isEntry = trimmed(line) == "[Desktop Entry]";
    const std::size_t equals = line.find('=');
    if (!isEntry || line.starts_with('#') || equals == std::string_view::npos) continue;
    const std::string_view key = trimmed(line.substr(0, equals));
    const std::string_view value = trimmed(line.substr(equals + 1));
    if (key == "Name" || key.starts_with("Name[")) entry.names.emplace_back(value);
    if (key == "Exec") command = value;
    if (key == "X-Flatpak") entry.flatpak = value;
    if (key == "X-SnapInstanceName") entry.snap = value;
    if (key == "Hidden") isHidden = value == "true";
  }
  std::vector<std::string> line = words(command);
  dropEnvironment(line);
  if (isHidden || line.empty()) return std::nullopt;
  if (entry.flatpak.empty()) entry.flatpak = argumentBehind(line, "flatpak", "run");
  if (entry.snap.empty()) entry.snap = argumentBehind(line, "snap", "run");
  entry.program = std::move(line.front());
  return entry;
}

std::vector<DesktopEntry> readDesktopEntries(const std::vector<fs::path>& folders) {
  std::vector<DesktopEntry> entries;
  std::set<std::string> known;
  for (const fs::path& folder : folders) {
    std::error_code error;
    fs::recursive_directory_iterator file(folder, fs::directory_options::skip_permission_denied,
                                          error);
    for (; !error && file != fs::recursive_directory_iterator(); file.increment(error)) {
      if (file.depth() >= deepestFolder) file.disable_recursion_pending();
      if (file->path().extension() != ".desktop") continue;
      // A folder's name becomes part of the id of the files in it.
      std::string id = file->path().lexically_relative(folder).replace_extension().string();
      std::ranges::replace(id, '/', '-');
      if (!known.insert(id).second) continue;
      const auto text = readRegularFile(file->path(), longestEntry);
      if (!text) continue;
      if (auto entry = DesktopEntry::parse(*text, std::move(id)))
        entries.push_back(std::move(*entry));
    }
  }
  return entries;
}

}  // namespace tandor::host
