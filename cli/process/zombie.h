// Whether a process has ended but not yet been waited for by its parent.
#pragma once

#include <sys/types.h>

namespace vorn {

// True when `pid` names a zombie: it still answers kill(pid, 0), but it will never serve again.
// False when it runs, does not exist, or its state cannot be read.
bool isZombie(pid_t pid);

}  // namespace vorn
