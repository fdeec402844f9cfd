#pragma once

#include <string_view>

namespace tandor {

/// Writes one log entry: `message` verbatim behind a prefix of date, time, process name, process
/// and thread number, as one whole line, to standard error. Entries of several threads never mix.
/// Any thread; never fails to its caller.
void NSLog(std::string_view message);

/// Keeps what the calling thread logs until flushNSLog(): for a thread that handles many things
/// before it rests. It flushes by itself what grows long, and when the thread ends.
void gatherNSLog() noexcept;
void flushNSLog() noexcept;

/// Receives each message in place of standard error. A null sink restores it. Meant for tests; set
/// it while nothing logs.
using NSLogSink = void (*)(std::string_view message);
void setNSLogSink(NSLogSink sink) noexcept;

}  // namespace tandor
