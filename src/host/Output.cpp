#include "host/Output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/JSONValues.h"
#include "platform/foundation/Text.h"

namespace tandor::host {
namespace {

bool writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

bool wantsColours() {
  const char* refusal = std::getenv("NO_COLOR");
  if (refusal != nullptr && *refusal != '\0') return false;
  const char* terminal = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) == 1 && terminal != nullptr &&
         std::string_view(terminal) != "dumb";
}

/// Columns that a printable text takes, a column for each character.
std::size_t width(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(
      text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U; }));
}

}  // namespace

std::string printable(std::string_view text) {
  std::string shown;
  const auto showBytes = [&](std::string_view bytes) {
    for (const char byte : bytes)
      fmt::format_to(std::back_inserter(shown), "\\x{:02x}", static_cast<unsigned char>(byte));
  };
  constexpr std::size_t longestCharacter = 4;
  while (!text.empty()) {
    std::size_t length = 1;
    while (length <= std::min(longestCharacter, text.size()) && !isUTF8(text.substr(0, length)))
      ++length;
    const bool isWhole = length <= std::min(longestCharacter, text.size());
    const std::string_view character = text.substr(0, isWhole ? length : 1);
    const auto first = static_cast<unsigned char>(character[0]);
    const bool isControl = first < 0x20 || first == 0x7F ||
                           (first == 0xC2 && static_cast<unsigned char>(character.back()) < 0xA0);
    if (isWhole && !isControl) {
      shown += character;
    } else {
      showBytes(character);
    }
    text.remove_prefix(character.size());
  }
  return shown;
}

std::string byteCount(std::uint64_t bytes) {
  static constexpr std::array units = {"kB", "MB", "GB", "TB"};
  if (bytes < 1000) return fmt::format("{} B", bytes);
  double count = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  // What would be rounded up to 1000 belongs to the next unit.
  for (; count >= 999.5 && unit + 1 < units.size(); ++unit) count /= 1000;
  return fmt::format("{:.{}f} {}", count, count < 9.95 ? 1 : 0, units.at(unit));
}

std::string timeSpan(std::chrono::seconds span) {
  const auto seconds = std::max<std::int64_t>(0, span.count());
  constexpr std::int64_t minute = 60;
  constexpr std::int64_t hour = 60 * minute;
  constexpr std::int64_t day = 24 * hour;
  if (seconds < minute) return fmt::format("{} s", seconds);
  if (seconds < hour) return fmt::format("{} min {} s", seconds / minute, seconds % minute);
  if (seconds < day) return fmt::format("{} h {} min", seconds / hour, seconds % hour / minute);
  return fmt::format("{} d {} h", seconds / day, seconds % day / hour);
}

Output::Output(bool isJSON) : isJSON_(isJSON), hasColours_(!isJSON && wantsColours()) {}

std::string Output::paint(Colour colour, std::string_view text) const {
  static constexpr std::array codes = {"", "1", "2", "31", "32", "33"};
  if (!hasColours_ || colour == Colour::plain) return std::string(text);
  return fmt::format("\x1b[{}m{}\x1b[0m", codes.at(static_cast<std::size_t>(colour)), text);
}

void Output::line(std::string_view text) {
  if (!isJSON_) write(std::string(text) + "\n");
}

void Output::value(const nlohmann::json& value) {
  if (isJSON_) write(jsonLine(value));
}

void Output::write(std::string_view text) {
  if (isRead_) isRead_ = writeAll(STDOUT_FILENO, text);
}

void Output::note(std::string_view text) {
  writeAll(STDERR_FILENO, fmt::format("tandor: {}\n", text));
}

void Output::failure(const Failure& failure) const {
  if (isJSON_) {
    writeAll(STDERR_FILENO, jsonLine({{"error", failure.message}, {"advice", failure.advice}}));
    return;
  }
  std::istringstream lines(failure.message);
  for (std::string line; std::getline(lines, line);) note(printable(line));
  if (!failure.advice.empty()) note(printable(failure.advice));
}

void Table::add(const std::vector<std::string>& cells) {
  auto& row = rows_.emplace_back();
  std::ranges::transform(cells, std::back_inserter(row), printable);
}

void Table::print(Output& output) const {
  std::vector<std::size_t> widths;
  for (std::size_t column = 0; column < headers_.size(); ++column) {
    widths.push_back(width(headers_[column]));
    for (const auto& row : rows_) widths[column] = std::max(widths[column], width(row[column]));
  }
  const auto text = [&](const std::vector<std::string>& row) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
      line += row[column];
      if (column + 1 < row.size()) line.append(widths[column] - width(row[column]) + 2, ' ');
    }
    return line;
  };
  output.line(output.paint(Output::Colour::bold, text(headers_)));
  for (const auto& row : rows_) output.line(text(row));
}

}  // namespace tandor::host
