// Test helpers for the transport: the description of the TransportError a call throws, a reply
// as an instance sends it, and a server on a Unix socket to exchange one request with.
// Used only by *_test.cpp files.
#pragma once

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "paths/test_files.h"
#include "transport/transport.h"

namespace vorn::testing {

// The description of the TransportError that `f` throws, or "<no error>".
inline std::string describe(const std::function<void()>& f) {
  try {
    f();
  } catch (const TransportError& e) {
    return e.description;
  }
  return "<no error>";
}

// A 200 reply carrying `body`: announced by Content-Length, or chunked in pieces of 1000 bytes.
inline std::string okReply(const std::string& body, bool chunked = false) {
  if (chunked) {
    std::string out = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (size_t at = 0; at < body.size(); at += 1000) {
      std::string piece = body.substr(at, 1000);
      char size[16];
      std::snprintf(size, sizeof size, "%zx\r\n", piece.size());
      out += size + piece + "\r\n";
    }
    return out + "0\r\n\r\n";
  }
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// A one-connection control server: it records the request bytes and answers with
// scripted bytes. Every wait has a deadline, so a failing test never hangs.
class TestServer {
 public:
  // replyUnread answers as soon as the request has arrived, without reading it, and closes;
  // replyHeaderSlowly sends the reply's header a byte at a time, then the rest at once.
  enum class Mode { reply, closeAfterRequest, closeAtOnce, replyUnread, replyHeaderSlowly };

  explicit TestServer(std::string name = "fs.sock") : path_(dir_.path() + "/" + name) {
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path_.size() >= sizeof addr.sun_path) {
      ADD_FAILURE() << "test socket path too long";
      return;
    }
    std::memcpy(addr.sun_path, path_.data(), path_.size());
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listenFd_, 4) != 0) {
      ADD_FAILURE() << "bind/listen " << path_ << ": " << std::strerror(errno);
    }
  }

  ~TestServer() {
    if (thread_.joinable()) thread_.join();
    if (listenFd_ >= 0) ::close(listenFd_);
    ::unlink(path_.c_str());
  }

  const std::string& path() const { return path_; }

  void serve(Mode mode, std::string reply = "") {
    thread_ = std::thread([this, mode, reply = std::move(reply)] { run(mode, reply); });
  }

  // The request bytes received; waits for the connection to finish.
  const std::string& received() {
    if (thread_.joinable()) thread_.join();
    return received_;
  }

 private:
  static constexpr int deadlineMs = 10000;

  static bool waitFor(int fd, short events) {
    pollfd p{fd, events, 0};
    int n;
    do {
      n = ::poll(&p, 1, deadlineMs);
    } while (n < 0 && errno == EINTR);
    return n > 0;
  }

  void run(Mode mode, const std::string& reply) {
    if (!waitFor(listenFd_, POLLIN)) return;
    int fd = ::accept(listenFd_, nullptr, nullptr);
    if (fd < 0) return;
    if (mode == Mode::replyUnread) {
      if (waitFor(fd, POLLIN)) writeReply(fd, reply);
    } else if (mode != Mode::closeAtOnce) {
      readRequest(fd);
    }
    if (mode == Mode::reply) writeReply(fd, reply);
    if (mode == Mode::replyHeaderSlowly) {
      size_t headerEnd = reply.find("\r\n\r\n") + 4;
      for (size_t i = 0; i < headerEnd; ++i) {
        writeReply(fd, reply.substr(i, 1));
        ::poll(nullptr, 0, 1);  // so that the client mostly takes each byte on its own
      }
      writeReply(fd, reply.substr(headerEnd));
    }
    ::close(fd);
  }

  // Reads the header, then as many body bytes as Content-Length announces.
  void readRequest(int fd) {
    char buf[65536];
    size_t want = std::string::npos;
    while (received_.size() < want) {
      if (!waitFor(fd, POLLIN)) return;
      ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      if (n <= 0) return;
      received_.append(buf, static_cast<size_t>(n));
      size_t end = received_.find("\r\n\r\n");
      if (want == std::string::npos && end != std::string::npos) {
        size_t length = 0;
        size_t at = received_.find("Content-Length: ");
        if (at != std::string::npos && at < end) length = std::stoul(received_.substr(at + 16));
        want = end + 4 + length;
      }
    }
  }

  static void writeReply(int fd, const std::string& reply) {
#ifdef MSG_NOSIGNAL
    constexpr int flags = MSG_NOSIGNAL;
#else
    constexpr int flags = 0;
#endif
    size_t sent = 0;
    while (sent < reply.size()) {
      if (!waitFor(fd, POLLOUT)) return;
      ssize_t n = ::send(fd, reply.data() + sent, reply.size() - sent, flags);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      sent += static_cast<size_t>(n);
    }
  }

  TempDir dir_;
  std::string path_;
  int listenFd_ = -1;
  std::thread thread_;
  std::string received_;
};

}  // namespace vorn::testing
