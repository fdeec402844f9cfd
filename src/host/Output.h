#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "host/Failure.h"

namespace tandor::host {

/// Text that names of files and hosts cannot use to steer a terminal: control characters and bytes
/// that are no UTF-8 are shown as \xNN.
[[nodiscard]] std::string printable(std::string_view text);

/// A number of bytes for people: 999 B, 1.2 kB, 34 MB.
[[nodiscard]] std::string byteCount(std::uint64_t bytes);
/// A span of time for people, in its two largest units: 34 s, 2 min 5 s, 3 d 4 h.
[[nodiscard]] std::string timeSpan(std::chrono::seconds span);

/// What a command prints: text for people, with colours only on a terminal and never with NO_COLOR,
/// or JSON, one value a line.
class Output {
 public:
  enum class Colour : std::uint8_t { plain, bold, dim, red, green, yellow };

  explicit Output(bool isJSON);

  [[nodiscard]] bool isJSON() const noexcept { return isJSON_; }
  [[nodiscard]] std::string paint(Colour colour, std::string_view text) const;

  /// One line for people; nothing in JSON.
  void line(std::string_view text);
  /// One value for programs; nothing otherwise.
  void value(const nlohmann::json& value);
  /// A remark beside the result, on standard error.
  static void note(std::string_view text);
  void failure(const Failure& failure) const;
  /// False once nobody reads any more what is printed.
  [[nodiscard]] bool isRead() const noexcept { return isRead_; }

 private:
  void write(std::string_view text);

  bool isJSON_;
  bool hasColours_;
  bool isRead_ = true;
};

/// Columns of text under headers.
class Table {
 public:
  explicit Table(std::vector<std::string> headers) : headers_(std::move(headers)) {}

  /// As many cells as there are headers; made printable.
  void add(const std::vector<std::string>& cells);
  [[nodiscard]] bool isEmpty() const noexcept { return rows_.empty(); }
  void print(Output& output) const;

 private:
  std::vector<std::string> headers_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace tandor::host
