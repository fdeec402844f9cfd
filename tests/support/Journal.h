#pragma once

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/Data.h"
#include "platform/foundation/NSLog.h"

namespace tandor::test {

using Lines = std::vector<std::string>;

/// What happened, in order: every log line, as "log: LINE", and what the scripted objects note, so
/// that a test sees lines and calls in one sequence. One lives at a time; any thread may log and
/// note.
class Journal {
 public:
  Journal() {
    current = this;
    setNSLogSink([](std::string_view line) { current->note("log: " + std::string(line)); });
  }
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;
  ~Journal() { setNSLogSink(nullptr); }

  void note(std::string entry) {
    const std::scoped_lock lock(mutex_);
    entries_.push_back(std::move(entry));
  }

  /// The entries since the last call.
  [[nodiscard]] Lines take() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(entries_, {});
  }

 private:
  static inline Journal* current = nullptr;
  std::mutex mutex_;
  Lines entries_;  // guarded by mutex_
};

/// Data as the journal shows it: short plain text as it is, anything else by its length and hash.
[[nodiscard]] inline std::string show(const Data& data) {
  constexpr std::size_t longestText = 200;
  const std::string text(data.characters());
  const bool isPlain = std::ranges::all_of(text, [](char character) {
    return (character >= ' ' && character <= '~') || character == '\r' || character == '\n';
  });
  if (isPlain && text.size() <= longestText) return "'" + text + "'";
  return std::to_string(text.size()) + " bytes #" + std::to_string(std::hash<std::string>()(text));
}

}  // namespace tandor::test
