#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/NSLog.h"
#include "support/Hello.h"
#include "tls/ClientHello.h"

namespace tandor::test {

struct Parsed {
  std::int32_t code;
  std::optional<std::string> name;  // all of the declared length, checked to be terminated
  std::string log;                  // the lines, with a line feed between two
};

/// Parses a copy of `bytes` in a heap block of exactly their size, so that AddressSanitizer sees
/// any read past them. Fails the test when the name's pointer is written without success.
inline Parsed parse(const Bytes& bytes) {
  const auto block = std::make_unique<std::uint8_t[]>(bytes.size());
  std::ranges::copy(bytes, block.get());
  static std::string logged;
  logged.clear();
  setNSLogSink([](std::string_view message) {
    if (!logged.empty()) logged += '\n';
    logged += message;
  });
  char untouched = '\0';
  char* name = &untouched;
  const std::int32_t code = parse_tls_header(block.get(), bytes.size(), &name);
  setNSLogSink(nullptr);
  if (code < 0) {
    EXPECT_EQ(name, &untouched);
    return {code, std::nullopt, logged};
  }
  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the parser hands over malloc's memory
  const std::unique_ptr<char, void (*)(char*)> owner(name, [](char* text) { std::free(text); });
  EXPECT_EQ(name[code], '\0');
  return {code, std::string(name, static_cast<std::size_t>(code)), logged};
}

struct RecordedHello {
  std::string client;
  Bytes bytes;
};

/// What real clients sent, as scripts/record-hellos wrote it down.
inline std::vector<RecordedHello> recordedHellos() {
  std::vector<RecordedHello> hellos;
  for (const auto& entry : std::filesystem::directory_iterator(TANDOR_FIXTURES "/hellos")) {
    std::ifstream file(entry.path(), std::ios::binary);
    hellos.push_back({entry.path().stem(), Bytes(std::istreambuf_iterator<char>(file), {})});
  }
  return hellos;
}

}  // namespace tandor::test
