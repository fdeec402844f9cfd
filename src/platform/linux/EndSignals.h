#pragma once

#include <vector>

namespace tandor {

/// The signals that ask the process for its end: SIGTERM and SIGINT, and SIGHUP and SIGQUIT unless
/// whoever started the process wants them ignored, as nohup does. Before anybody handles them.
[[nodiscard]] std::vector<int> endSignals();

/// Keeps those signals waiting for the calling thread and all that it starts, until a thread lets
/// them in: none may end the process before it can clear up. The signals that would end it without
/// having been meant so are ignored from now on. First of all.
void holdEndSignals();
/// Lets them in on the calling thread.
void admitEndSignals();

}  // namespace tandor
