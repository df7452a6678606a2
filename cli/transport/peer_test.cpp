// Who is at the other end: a server of another user is sent nothing, and a host we started is
// believed only when it is that very process.
#include "transport/peer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "transport/test_transport.h"
#include "transport/transport.h"

namespace vorn {
namespace {

using testing::describe;
using testing::TempDir;
using testing::TestServer;

constexpr uid_t me = 1000;
constexpr uid_t otherUser = 12345;

TEST(PeerStranger, OursAndRootsAreBelieved) {
  EXPECT_EQ(Peer::strangerError("/r/1/fs.sock", PeerCredentials{me, 7}, me), std::nullopt);
  EXPECT_EQ(Peer::strangerError("/r/1/fs.sock", PeerCredentials{0, 7}, me), std::nullopt);
  EXPECT_EQ(Peer::strangerError("/r/1/fs.sock", PeerCredentials{0, std::nullopt}, 0),
            std::nullopt);
}

TEST(PeerStranger, AnotherUsersServerIsNamed) {
  EXPECT_EQ(Peer::strangerError("/r/1/fs.sock", PeerCredentials{1001, 7}, me),
            "connect /r/1/fs.sock: the server belongs to uid 1001, not you");
  EXPECT_EQ(Peer::strangerError("/r/1/fs.sock", PeerCredentials{me, 7}, 0),
            "connect /r/1/fs.sock: the server belongs to uid 1000, not you");
  EXPECT_EQ(Peer::strangerError("/r/1/fs.sock", std::nullopt, me),
            "connect /r/1/fs.sock: cannot tell whose the server is");
}

TEST(PeerCredentialsOf, AConnectedPairIsThisProcess) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  std::optional<PeerCredentials> peer = Peer::credentials(fds[0]);
  ::close(fds[0]);
  ::close(fds[1]);
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->uid, ::getuid());
  ASSERT_TRUE(peer->pid);
  EXPECT_EQ(*peer->pid, ::getpid());
}

TEST(PeerCredentialsOf, NotASocket) {
  TempDir tmp;
  int fd = ::open(tmp.file("f").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(Peer::credentials(fd), std::nullopt);
  ::close(fd);
}

TEST(RequestFrom, TheServerMustBeTheGivenProcess) {
  TestServer server;
  server.serve(TestServer::Mode::reply, testing::okReply("{\"ok\":true}"));
  Reply reply = Transport::requestFrom(::getpid(), server.path(), "GET", "/health");
  EXPECT_EQ(reply.status, 200);
  EXPECT_NE(server.received().find("GET /health HTTP/1.1\r\n"), std::string::npos);

  TestServer impostor;
  impostor.serve(TestServer::Mode::reply, testing::okReply("{\"ok\":true}"));
  // The host we started is some other process than the one that serves here.
  pid_t host = ::getppid();
  EXPECT_EQ(describe([&] { Transport::requestFrom(host, impostor.path(), "GET", "/health"); }),
            "connect " + impostor.path() + ": the server is pid " + std::to_string(::getpid()) +
                ", not pid " + std::to_string(host));
  // Nothing was sent to it.
  EXPECT_EQ(impostor.received(), "");
}

// A server on `sock` run by another user: a child that gives itself to `otherUser`, listens,
// takes one connection and reports how many bytes it was sent. Only root can do this.
class ForeignServer {
 public:
  explicit ForeignServer(const std::string& sock) {
    int ready[2];
    if (::pipe(ready) != 0 || ::pipe(report_) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(ready[0]);
      ::close(report_[0]);
      if (::setgid(otherUser) != 0 || ::setuid(otherUser) != 0) ::_exit(3);
      int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::memcpy(addr.sun_path, sock.data(), sock.size());
      if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 4)) {
        ::_exit(4);
      }
      (void)!::write(ready[1], "r", 1);
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 10000) <= 0) ::_exit(5);
      int client = ::accept(fd, nullptr, nullptr);
      char buffer[4096];
      size_t total = 0;
      ssize_t n;
      while ((n = ::read(client, buffer, sizeof buffer)) > 0) total += static_cast<size_t>(n);
      std::string count = std::to_string(total);
      (void)!::write(report_[1], count.data(), count.size());
      ::_exit(0);
    }
    ::close(ready[1]);
    ::close(report_[1]);
    char byte;
    started_ = ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
  }
  ~ForeignServer() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(report_[0]);
  }
  bool started() const { return started_; }
  // The bytes the server received, once its one connection is over.
  std::string received() {
    std::string out;
    char buffer[64];
    ssize_t n;
    while ((n = ::read(report_[0], buffer, sizeof buffer)) > 0) out.append(buffer, n);
    return out;
  }

 private:
  pid_t pid_ = -1;
  int report_[2] = {-1, -1};
  bool started_ = false;
};

TEST(RequestToAnotherUser, NothingIsSent) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can run a server as another user";
  TempDir tmp;
  std::string dir = tmp.dir("theirs");
  ASSERT_EQ(::chmod(tmp.path().c_str(), 0755), 0);
  ASSERT_EQ(::chown(dir.c_str(), otherUser, otherUser), 0);
  std::string sock = dir + "/fs.sock";

  {
    ForeignServer server(sock);
    ASSERT_TRUE(server.started());
    EXPECT_EQ(describe([&] { Transport::request(sock, "GET", "/read?path=.env"); }),
              "connect " + sock + ": the server belongs to uid 12345, not you");
    EXPECT_EQ(server.received(), "0");
  }
  ::unlink(sock.c_str());
  {
    // A socket file of ours (or root's) does not make its server ours.
    ForeignServer server(sock);
    ASSERT_TRUE(server.started());
    ASSERT_EQ(::chown(sock.c_str(), 0, 0), 0);
    EXPECT_EQ(describe([&] { Transport::request(sock, "GET", "/read?path=.env"); }),
              "connect " + sock + ": the server belongs to uid 12345, not you");
    EXPECT_EQ(server.received(), "0");
  }
}

}  // namespace
}  // namespace vorn
