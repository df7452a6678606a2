#include "transport/listen_queue.h"

#include <errno.h>
#include <poll.h>

#include <algorithm>

#if defined(__APPLE__)
#include <libproc.h>
#include <sys/proc_info.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdlib>
#include <vector>
#endif

namespace vorn {
namespace Transport {

#if defined(__APPLE__)
namespace {

// The pid that names the socket's folder (<root>/<pid>/fs.sock); 0 when it is not a number.
pid_t folderPid(const std::string& sock) {
  size_t end = sock.rfind('/');
  if (end == std::string::npos || end == 0) return 0;
  size_t start = sock.rfind('/', end - 1);
  start = start == std::string::npos ? 0 : start + 1;
  std::string name = sock.substr(start, end - start);
  if (name.empty() || name.size() > 9 ||
      !std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return 0;
  }
  return static_cast<pid_t>(std::atoi(name.c_str()));
}

// Whether the listening Unix socket `info` is bound to the file `target` (compared by device
// and inode, so /var and /private/var name the same socket).
bool listensOn(const socket_fdinfo& info, const struct stat& target) {
  if (info.psi.soi_kind != SOCKINFO_UN || (info.psi.soi_options & SO_ACCEPTCONN) == 0) return false;
  const char* bound = info.psi.soi_proto.pri_un.unsi_addr.ua_sun.sun_path;
  struct stat st;
  return bound[0] != '\0' && ::stat(bound, &st) == 0 && st.st_dev == target.st_dev &&
         st.st_ino == target.st_ino;
}

}  // namespace

bool refusalMayBeFullQueue(const std::string& sock) {
  pid_t pid = folderPid(sock);
  struct stat target;
  if (pid <= 0 || ::stat(sock.c_str(), &target) != 0) return false;
  int bytes = ::proc_pidinfo(pid, PROC_PIDLISTFDS, 0, nullptr, 0);
  if (bytes <= 0) return false;
  std::vector<proc_fdinfo> fds(static_cast<size_t>(bytes) / sizeof(proc_fdinfo) + 16);
  bytes = ::proc_pidinfo(pid, PROC_PIDLISTFDS, 0, fds.data(),
                         static_cast<int>(fds.size() * sizeof(proc_fdinfo)));
  if (bytes <= 0) return false;
  fds.resize(static_cast<size_t>(bytes) / sizeof(proc_fdinfo));
  for (const proc_fdinfo& fd : fds) {
    if (fd.proc_fdtype != PROX_FDTYPE_SOCKET) continue;
    socket_fdinfo info;
    if (::proc_pidfdinfo(pid, fd.proc_fd, PROC_PIDFDSOCKETINFO, &info, sizeof info) !=
        static_cast<int>(sizeof info)) {
      continue;
    }
    if (listensOn(info, target)) return true;
  }
  return false;
}
#else
bool refusalMayBeFullQueue(const std::string&) {
  return false;
}
#endif

int connectPatiently(const std::function<int()>& attempt,
                     const std::function<bool()>& mayBeFullQueue, const Deadline& deadline) {
  auto queueFull = [&](int err) {
    return err == EAGAIN || err == EWOULDBLOCK || (err == ECONNREFUSED && mayBeFullQueue());
  };
  int err = attempt();
  for (int pauseMs = 1; queueFull(err); pauseMs = std::min(pauseMs * 2, 50)) {
    int left = deadline.pollMs();
    ::poll(nullptr, 0, left < 0 ? pauseMs : std::min(pauseMs, left));
    err = attempt();
  }
  return err;
}

}  // namespace Transport
}  // namespace vorn
