// Test helpers for the registry: private temp folders, fake instance servers on Unix sockets,
// instance records, test checkouts and helper processes. Used only by *_test.cpp files.
#pragma once

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "instances/instances.h"
#include "json/json.h"
#include "paths/test_files.h"

namespace vorn::testing {

inline void writeFile(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary);
  out << text;
}

inline bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// Makes `dir` a source checkout: the three files that mark one.
inline void makeCheckout(const std::string& dir) {
  writeFile(dir + "/MODULE.bazel", "");
  writeFile(dir + "/tools/go.pin", "");
  writeFile(dir + "/src/cli/vorn.ts", "");
}

// A GET /instance record as an instance sends it.
struct Record {
  std::string id;
  int64_t pid = 0;
  std::string socketPath;
  std::string workspace;
  std::string vornRoot = "/opt/vorn";
  std::string platform = "darwin";
  std::optional<std::string> mode = std::string("app");

  JSON json() const {
    JSON::Object o = {{"id", JSON(id)},
                      {"pid", JSON(pid)},
                      {"socketPath", JSON(socketPath)},
                      {"workspace", JSON(workspace)},
                      {"workspaceName", JSON(workspace.empty() ? "" : "ws")},
                      {"vornRoot", JSON(vornRoot)},
                      {"startedAt", JSON(1700000000000.0)},
                      {"transport", JSON("af_unix")},
                      {"platform", JSON(platform)}};
    if (mode) o.emplace_back("mode", JSON(*mode));
    return JSON(std::move(o));
  }
};

inline Record record(std::string id, int64_t pid, std::string socketPath,
                     std::string workspace = "") {
  Record r;
  r.id = std::move(id);
  r.pid = pid;
  r.socketPath = std::move(socketPath);
  r.workspace = std::move(workspace);
  return r;
}

struct SeenRequest {
  std::string method;
  std::string path;
  std::string body;
};

struct FakeReply {
  int status = 200;
  std::string body;
  bool hangUp = false;         // close the connection without any reply
  bool stopListening = false;  // after this reply, close the socket: later connects are refused
  std::optional<std::string> raw = std::nullopt;  // these bytes instead of a well-formed reply
};

// A control server on a Unix socket that answers each connection with one reply from
// `handler` and closes it, on its own thread, until it is destroyed.
class FakeInstanceServer {
 public:
  using Handler = std::function<FakeReply(const SeenRequest&)>;

  FakeInstanceServer(std::string path, Handler handler)
      : path_(std::move(path)), handler_(std::move(handler)) {
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
    fd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd_ < 0) throw std::runtime_error("socket failed");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path_.size() >= sizeof addr.sun_path) throw std::runtime_error("socket path too long");
    std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(fd_, 16) != 0) {
      ::close(fd_);
      throw std::runtime_error("bind/listen failed on " + path_);
    }
    thread_ = std::thread([this] { serve(); });
  }

  // Answers GET /instance with the record, everything else with {"ok": true}.
  static Handler answering(const JSON& record) {
    std::string text = record.serialized(0);
    return [text](const SeenRequest& request) {
      if (request.method == "GET" && request.path == "/instance") return FakeReply{200, text};
      return FakeReply{200, "{\"ok\":true}"};
    };
  }

  FakeInstanceServer(const FakeInstanceServer&) = delete;
  FakeInstanceServer& operator=(const FakeInstanceServer&) = delete;
  ~FakeInstanceServer() { stop(); }

  // Stops answering and closes the socket; a later connect is refused.
  void stop() {
    if (!thread_.joinable()) return;
    stopping_ = true;
    thread_.join();
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  std::vector<SeenRequest> requests() const {
    std::lock_guard<std::mutex> hold(lock_);
    return seen_;
  }
  const std::string& path() const { return path_; }

 private:
  void serve() {
    while (!stopping_) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 20) <= 0) continue;
      int client = ::accept(fd_, nullptr, nullptr);
      if (client < 0) continue;
      bool last = answer(client);
      ::close(client);
      if (last) return;  // answer() has closed the listening socket already
    }
  }

  // Reads one request (header and Content-Length body) with a deadline, then replies; true
  // when the reply asked to stop listening.
  bool answer(int client) {
    std::string bytes;
    size_t headerEnd = std::string::npos;
    size_t wanted = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    char buffer[4096];
    while (std::chrono::steady_clock::now() < deadline) {
      if (headerEnd != std::string::npos && bytes.size() >= headerEnd + 4 + wanted) break;
      pollfd p{client, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      bytes.append(buffer, static_cast<size_t>(n));
      if (headerEnd == std::string::npos) {
        headerEnd = bytes.find("\r\n\r\n");
        if (headerEnd != std::string::npos) {
          std::string header = bytes.substr(0, headerEnd);
          for (auto& c : header)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
          size_t at = header.find("content-length:");
          if (at != std::string::npos) wanted = std::stoul(header.substr(at + 15));
        }
      }
    }
    if (headerEnd == std::string::npos) return false;
    SeenRequest request;
    size_t lineEnd = bytes.find("\r\n");
    std::string line = bytes.substr(0, lineEnd);
    size_t sp1 = line.find(' ');
    size_t sp2 = line.find(' ', sp1 + 1);
    request.method = line.substr(0, sp1);
    request.path = line.substr(sp1 + 1, sp2 - sp1 - 1);
    request.body = bytes.substr(headerEnd + 4);
    {
      std::lock_guard<std::mutex> hold(lock_);
      seen_.push_back(request);
    }
    FakeReply reply = handler_(request);
    if (reply.stopListening) {
      // Before the reply goes out: once the client has it, its next connect must be refused,
      // not queued on a socket about to close (which would reset it).
      ::close(fd_);
      fd_ = -1;
    }
    if (reply.hangUp) return reply.stopListening;
    std::string out = reply.raw ? *reply.raw
                                : "HTTP/1.1 " + std::to_string(reply.status) +
                                      " X\r\nContent-Type: application/json\r\nContent-Length: " +
                                      std::to_string(reply.body.size()) +
                                      "\r\nConnection: close\r\n\r\n" + reply.body;
    size_t sent = 0;
    while (sent < out.size()) {
      ssize_t n = ::send(client, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    return reply.stopListening;
  }

  std::string path_;
  Handler handler_;
  int fd_ = -1;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
  mutable std::mutex lock_;
  std::vector<SeenRequest> seen_;
};

// A helper process that sleeps until the test ends it; its pid names a live process.
// It also ends by itself when the test process dies (a crashed test leaves nothing behind):
// it holds only the reading end of a pipe whose writing end the test keeps, and exits at its
// end of file. Holding nothing else, it never keeps the test's output pipes open either.
class SleepingChild {
 public:
  SleepingChild() {
    int lifeline[2];
    if (::pipe(lifeline) != 0) throw std::runtime_error("pipe failed");
    long most = std::min(::sysconf(_SC_OPEN_MAX), 65536L);
    pid_ = ::fork();
    if (pid_ == 0) {
      for (int fd = 0; fd < most; ++fd) {
        if (fd != lifeline[0]) ::close(fd);
      }
      char byte;
      ssize_t n;
      do {
        n = ::read(lifeline[0], &byte, 1);
      } while (n > 0 || (n < 0 && errno == EINTR));
      ::_exit(0);
    }
    ::close(lifeline[0]);
    if (pid_ < 0) {
      ::close(lifeline[1]);
      throw std::runtime_error("fork failed");
    }
    lifeline_ = lifeline[1];
  }
  SleepingChild(const SleepingChild&) = delete;
  SleepingChild& operator=(const SleepingChild&) = delete;
  ~SleepingChild() { end(); }
  // Kills and reaps it: afterwards its pid is dead.
  void end() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    ::close(lifeline_);
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int lifeline_ = -1;
};

// The pid of a child that has exited and been reaped.
inline pid_t deadPid() {
  pid_t pid = ::fork();
  if (pid == 0) ::_exit(0);
  int status;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return pid;
}

}  // namespace vorn::testing
