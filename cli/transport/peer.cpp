#include "transport/peer.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#if defined(__APPLE__)
#include <sys/ucred.h>
#endif

#include "paths/trust.h"

namespace vorn {

namespace Peer {

std::optional<PeerCredentials> credentials(int fd) {
#if defined(__APPLE__)
  // macOS has no SO_PEERCRED: getpeereid gives the uid, LOCAL_PEERPID (at level SOL_LOCAL)
  // the pid of the process that made the server's end.
  PeerCredentials peer;
  gid_t gid = 0;
  if (::getpeereid(fd, &peer.uid, &gid) != 0) return std::nullopt;
  pid_t pid = 0;
  socklen_t len = sizeof pid;
  if (::getsockopt(fd, SOL_LOCAL, LOCAL_PEERPID, &pid, &len) == 0 && pid > 0) peer.pid = pid;
  return peer;
#elif defined(SO_PEERCRED)
  // Linux: the credentials the server's process had when it called listen().
  struct ucred cred {};
  socklen_t len = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return std::nullopt;
  PeerCredentials peer;
  peer.uid = cred.uid;
  if (cred.pid > 0) peer.pid = cred.pid;
  return peer;
#else
  // The BSDs: getpeereid gives the uid; the pid is not told.
  PeerCredentials peer;
  gid_t gid = 0;
  if (::getpeereid(fd, &peer.uid, &gid) != 0) return std::nullopt;
  return peer;
#endif
}

std::optional<std::string> strangerError(const std::string& sock,
                                         const std::optional<PeerCredentials>& peer, uid_t self) {
  if (!peer) return "connect " + sock + ": cannot tell whose the server is";
  if (Trust::trustedOwner(peer->uid, self)) return std::nullopt;
  return "connect " + sock + ": the server belongs to uid " + std::to_string(peer->uid) +
         ", not you";
}

}  // namespace Peer

}  // namespace vorn
