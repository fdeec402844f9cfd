#pragma once

#include <string>

#include "platform/foundation/Description.h"
#include "platform/foundation/NSLog.h"

namespace tandor {

/// Groups the one logging operation.
struct Logger {
  /// Joins the standard renderings of the items with single spaces and writes them as one entry,
  /// verbatim: a percent sign means nothing here. Any thread; always writes, never fails.
  template <typename... Items>
  static void log(const Items&... items) {
    std::string message;  // NOLINT(misc-const-correctness): constant only without items
    [[maybe_unused]] const char* separator = "";  // unused without items
    ((message += separator, message += description(items), separator = " "), ...);
    NSLog(message);
  }
};

template <typename... Items>
void log(const Items&... items) {
  Logger::log(items...);
}

}  // namespace tandor
