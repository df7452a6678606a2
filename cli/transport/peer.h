// Who is at the other end of a control socket: only a server run by the user (or by root) is
// sent a request, since a request may carry a path, a search or a file's name.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace vorn {

struct PeerCredentials {
  uid_t uid = 0;
  std::optional<pid_t> pid;  // where the system tells it
};

namespace Peer {

// The credentials of the process at the other end of the connected socket `fd`, or nothing
// when the system will not say.
std::optional<PeerCredentials> credentials(int fd);

// Why the server at `sock` is not to be believed, as the transport error's text, or nothing
// when it may be: its process must belong to `self` or to root.
std::optional<std::string> strangerError(const std::string& sock,
                                         const std::optional<PeerCredentials>& peer, uid_t self);

}  // namespace Peer

}  // namespace vorn
