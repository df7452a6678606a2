#include "process/zombie.h"

#include <string>

#if defined(__APPLE__)
#include <sys/sysctl.h>
#else
#include "paths/paths.h"
#endif

namespace vorn {

// The one platform difference of reading a process's state: Linux shows it in /proc, macOS,
// which has no /proc, through sysctl.
#if defined(__APPLE__)
bool isZombie(pid_t pid) {
  int query[4] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, static_cast<int>(pid)};
  struct kinfo_proc info{};
  size_t size = sizeof info;
  if (::sysctl(query, 4, &info, &size, nullptr, 0) != 0 || size < sizeof info) return false;
  return info.kp_proc.p_stat == SZOMB;
}
#else
bool isZombie(pid_t pid) {
  // "<pid> (<name>) <state> ...": the name may hold spaces and parentheses, so the state is
  // found after the last ')'.
  std::string stat = Paths::readFile("/proc/" + std::to_string(pid) + "/stat").value_or("");
  size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return false;
  return stat[close + 2] == 'Z';
}
#endif

}  // namespace vorn
