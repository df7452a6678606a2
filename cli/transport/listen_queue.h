// A connect that waits while an instance's listen queue is full, on every system: a live
// instance under load is slow, not gone, and must never look unreachable (the scan would prune
// its folder, and it could never be found again).
#pragma once

#include <functional>
#include <string>

#include "transport/deadline.h"

namespace vorn {

namespace Transport {

// Whether a connect to `sock` that the system refused may have met a full listen queue rather
// than a socket nobody listens on. Linux tells the two apart itself (a full queue says EAGAIN),
// so there it is always false. macOS refuses both with ECONNREFUSED; there it asks the system
// whether the process that the socket's folder is named after has that socket listening. False
// whenever that cannot be known, so a socket with no listener is refused at once.
bool refusalMayBeFullQueue(const std::string& sock);

// Calls `attempt` (a connect returning 0 or an errno) until it is neither EAGAIN nor a refusal
// that `mayBeFullQueue` blames on a full queue, pausing a little longer each time (1 ms, growing
// to 50 ms) within the deadline, whose pollMs() throws once it has passed. Returns the last
// attempt's result.
int connectPatiently(const std::function<int()>& attempt,
                     const std::function<bool()>& mayBeFullQueue, const Deadline& deadline);

}  // namespace Transport
}  // namespace vorn
