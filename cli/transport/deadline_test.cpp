#include "transport/deadline.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "paths/test_files.h"
#include "transport/test_transport.h"
#include "transport/transport.h"

namespace vorn {
namespace {

using testing::TempDir;

using testing::describe;

// ---------------------------------------------------------------------------------------
// The variable's value

TEST(ParseTimeout, PositiveDecimalSeconds) {
  EXPECT_EQ(Transport::parseTimeout("2"), 2.0);
  EXPECT_EQ(Transport::parseTimeout("0.5"), 0.5);
  EXPECT_EQ(Transport::parseTimeout(".25"), 0.25);
  EXPECT_EQ(Transport::parseTimeout("1."), 1.0);
  EXPECT_EQ(Transport::parseTimeout("007"), 7.0);
  EXPECT_EQ(Transport::parseTimeout("0.001"), 0.001);
  EXPECT_EQ(Transport::parseTimeout("86400"), 86400.0);
}

TEST(ParseTimeout, AnythingElseIsRefused) {
  for (const char* bad : {"", "0", "0.0", "00", ".", "-1", "+1", "1e3", "1E3", " 1", "1 ", "1s",
                          "abc", "1.2.3", "inf", "nan", "0x10", "1,5", "\xd9\xa1"}) {
    EXPECT_EQ(Transport::parseTimeout(bad), std::nullopt) << bad;
  }
  // Too large for a double, or so small that it reads as zero.
  EXPECT_EQ(Transport::parseTimeout("1" + std::string(400, '0')), std::nullopt);
  EXPECT_EQ(Transport::parseTimeout("0." + std::string(400, '0') + "1"), std::nullopt);
}

TEST(ParseTimeout, TheMessageWritesTheNumberAsJSONDoes) {
  EXPECT_EQ(Transport::timedOutText(0.5), "timed out after 0.5s");
  EXPECT_EQ(Transport::timedOutText(*Transport::parseTimeout("2.50")), "timed out after 2.5s");
  EXPECT_EQ(Transport::timedOutText(*Transport::parseTimeout(".5")), "timed out after 0.5s");
  EXPECT_EQ(Transport::timedOutText(*Transport::parseTimeout("3.0")), "timed out after 3s");
}

TEST(Deadline, WithoutALimitItNeverPasses) {
  Deadline none(std::nullopt);
  EXPECT_EQ(none.pollMs(), -1);
}

TEST(Deadline, CountsDownAndThenFails) {
  Deadline later(30.0);
  int ms = later.pollMs();
  EXPECT_GT(ms, 0);
  EXPECT_LE(ms, 30000);

  Deadline soon(0.001);
  std::string error;
  auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (error.empty() && std::chrono::steady_clock::now() < giveUp) {
    try {
      soon.pollMs();
    } catch (const TransportError& e) {
      error = e.description;
    }
  }
  EXPECT_EQ(error, "timed out after 0.001s");
}

TEST(Deadline, AnAbsurdLimitIsAsGoodAsNone) {
  Deadline far(1e300);
  EXPECT_GT(far.pollMs(), 0);
}

// ---------------------------------------------------------------------------------------
// Exchanges over a real socket

// A listening socket on a private path.
struct Listener {
  TempDir dir;
  std::string path = dir.path() + "/fs.sock";
  int fd = -1;

  explicit Listener(int backlog = 4) {
    fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.data(), path.size());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(fd, backlog) != 0) {
      ADD_FAILURE() << "bind/listen " << path << ": " << std::strerror(errno);
    }
  }
  ~Listener() {
    if (fd >= 0) ::close(fd);
  }
};

// A server that accepts one connection and then takes its time: it may read the request,
// sends the scripted pieces with pauses between them, and holds the connection open until
// the test ends (or closes it when told to). Every wait is bounded, so nothing outlives a test.
class SlowServer {
 public:
  struct Piece {
    int pauseMs;
    std::string bytes;
  };

  SlowServer() { EXPECT_EQ(::pipe(stop_), 0); }
  ~SlowServer() {
    ::close(stop_[1]);  // wakes the thread
    if (thread_.joinable()) thread_.join();
    ::close(stop_[0]);
  }

  const std::string& path() const { return listener_.path; }

  void serve(bool readRequest, std::vector<Piece> pieces, bool closeAfter = false) {
    thread_ = std::thread([=, this] { run(readRequest, pieces, closeAfter); });
  }

  std::string request() {
    std::lock_guard<std::mutex> hold(lock_);
    return request_;
  }

 private:
  // Waits up to ms; true when the test has ended meanwhile.
  bool stopped(int ms) {
    pollfd p{stop_[0], POLLIN, 0};
    return ::poll(&p, 1, ms) > 0;
  }

  // Waits up to 10 s for fd; false when the test ended first or nothing came.
  bool ready(int fd) {
    pollfd p[2] = {{stop_[0], POLLIN, 0}, {fd, POLLIN, 0}};
    return ::poll(p, 2, 10000) > 0 && !p[0].revents && p[1].revents;
  }

  void run(bool readRequest, const std::vector<Piece>& pieces, bool closeAfter) {
    if (!ready(listener_.fd)) return;
    int fd = ::accept(listener_.fd, nullptr, nullptr);
    if (fd < 0) return;
    if (readRequest) {
      char buf[4096];
      std::string got;
      while (got.find("\r\n\r\n") == std::string::npos && ready(fd)) {
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
      }
      std::lock_guard<std::mutex> hold(lock_);
      request_ = got;
    }
    for (const Piece& piece : pieces) {
      if (stopped(piece.pauseMs)) break;
      if (::send(fd, piece.bytes.data(), piece.bytes.size(), MSG_NOSIGNAL) < 0) break;
    }
    if (!closeAfter) stopped(10000);
    ::close(fd);
  }

  Listener listener_;
  int stop_[2] = {-1, -1};
  std::thread thread_;
  std::mutex lock_;
  std::string request_;
};

// Each test sets the limit it needs; none is left behind for the next.
struct TimeoutTest : ::testing::Test {
  ~TimeoutTest() override { Transport::setTimeout(std::nullopt); }
};

const std::string okResponse = "HTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\n{\"ok\":true}";

// The OK reply in two pieces, each sent after its pause.
std::vector<SlowServer::Piece> inHalves(int firstMs, int secondMs) {
  size_t half = okResponse.size() / 2;
  return {{firstMs, okResponse.substr(0, half)}, {secondMs, okResponse.substr(half)}};
}

void expectTheOkReply(const std::string& sock) {
  EXPECT_EQ(Transport::request(sock, "GET", "/health").body, JSON::object({{"ok", JSON(true)}}));
}

TEST_F(TimeoutTest, AnInstanceThatAcceptsAndNeverAnswers) {
  SlowServer server;
  server.serve(true, {});
  Transport::setTimeout(0.2);
  EXPECT_EQ(describe([&] { Transport::request(server.path(), "GET", "/health"); }),
            "timed out after 0.2s");
  // The request went out whole: the wait that ran out was the one for the reply.
  EXPECT_EQ(server.request(), Transport::buildRequest("GET", "/health", nullptr));
}

TEST_F(TimeoutTest, AnInstanceThatAnswersHalf) {
  SlowServer server;
  server.serve(true, {inHalves(0, 0)[0]});
  Transport::setTimeout(0.25);
  EXPECT_EQ(describe([&] { Transport::request(server.path(), "GET", "/health"); }),
            "timed out after 0.25s");
}

TEST_F(TimeoutTest, TheLimitCoversTheWholeExchangeNotEachRead) {
  // Every byte comes well within the limit, the whole reply does not.
  std::vector<SlowServer::Piece> drip;
  for (char c : okResponse)
    drip.push_back({40, std::string(1, c)});
  SlowServer server;
  server.serve(true, drip, true);
  Transport::setTimeout(0.3);
  EXPECT_EQ(describe([&] { Transport::request(server.path(), "GET", "/health"); }),
            "timed out after 0.3s");
}

TEST_F(TimeoutTest, AnInstanceThatNeverReadsStopsALargeWrite) {
  SlowServer server;
  server.serve(false, {});
  Transport::setTimeout(0.3);
  JSON body = JSON::object({{"text", JSON(std::string(16 * 1024 * 1024, 'x'))}});
  EXPECT_EQ(describe([&] { Transport::request(server.path(), "POST", "/write", &body); }),
            "timed out after 0.3s");
}

TEST_F(TimeoutTest, AReplyWithinTheLimitArrives) {
  SlowServer server;
  server.serve(true, inHalves(50, 0), true);
  Transport::setTimeout(30);
  expectTheOkReply(server.path());
}

TEST_F(TimeoutTest, WithoutALimitASlowReplyIsWaitedFor) {
  SlowServer server;
  server.serve(true, inHalves(0, 300), true);
  expectTheOkReply(server.path());
}

TEST_F(TimeoutTest, GetJSONFoldsTheTimeoutIntoItsError) {
  SlowServer server;
  server.serve(true, {});
  Transport::setTimeout(0.2);
  EXPECT_EQ(Transport::getJSON(server.path(), "/health"),
            JSON::object({{"error", JSON("timed out after 0.2s")}}));
}

TEST_F(TimeoutTest, ARefusedConnectionIsStillRefused) {
  Listener gone;
  ::close(gone.fd);  // nothing listens any more; the socket file stays
  gone.fd = -1;
  Transport::setTimeout(5);
  EXPECT_EQ(describe([&] { Transport::request(gone.path, "GET", "/health"); }),
            "connect " + gone.path + ": Connection refused");
}

// Signals that interrupt the waits of the calling thread every few milliseconds, through a
// handler installed without SA_RESTART, so that every poll() returns EINTR at once.
class Interruptions {
 public:
  Interruptions() : target_(::pthread_self()) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigemptyset(&action.sa_mask);  // a macro on macOS, so not ::-qualified
    ::sigaction(SIGUSR1, &action, &previous_);
    thread_ = std::thread([this] {
      while (!done_) {
        ::pthread_kill(target_, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
  }
  ~Interruptions() {
    done_ = true;
    thread_.join();
    ::sigaction(SIGUSR1, &previous_, nullptr);
  }

 private:
  pthread_t target_;
  struct sigaction previous_ {};
  std::atomic<bool> done_{false};
  std::thread thread_;
};

TEST_F(TimeoutTest, InterruptedWaitsGoOn) {
  SlowServer server;
  server.serve(true, inHalves(100, 100), true);
  Interruptions signals;
  expectTheOkReply(server.path());
}

TEST_F(TimeoutTest, InterruptedWaitsStillEndAtTheDeadline) {
  SlowServer server;
  server.serve(true, {});
  Transport::setTimeout(0.2);
  Interruptions signals;
  EXPECT_EQ(describe([&] { Transport::request(server.path(), "GET", "/health"); }),
            "timed out after 0.2s");
}

#ifdef __linux__
// Linux refuses a non-blocking connect with EAGAIN while the listen queue is full; the
// client keeps trying, within the limit, as a blocking connect would have waited.
struct FullQueue {
  Listener listener{0};
  int filler = ::socket(AF_UNIX, SOCK_STREAM, 0);

  FullQueue() {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, listener.path.data(), listener.path.size());
    EXPECT_EQ(::connect(filler, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  }
  ~FullQueue() { ::close(filler); }
};

TEST_F(TimeoutTest, AFullListenQueueTimesOutTheConnect) {
  FullQueue queue;
  Transport::setTimeout(0.2);
  EXPECT_EQ(describe([&] { Transport::request(queue.listener.path, "GET", "/health"); }),
            "timed out after 0.2s");
}

TEST_F(TimeoutTest, WithoutALimitAFullListenQueueIsWaitedOut) {
  FullQueue queue;
  std::thread server([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ::close(::accept(queue.listener.fd, nullptr, nullptr));  // the filler: room for ours
    pollfd p{queue.listener.fd, POLLIN, 0};
    if (::poll(&p, 1, 10000) <= 0) return;
    int fd = ::accept(queue.listener.fd, nullptr, nullptr);
    char buf[4096];
    (void)::recv(fd, buf, sizeof buf, 0);
    (void)::send(fd, okResponse.data(), okResponse.size(), MSG_NOSIGNAL);
    ::close(fd);
  });
  Reply reply = Transport::request(queue.listener.path, "GET", "/health");
  server.join();
  EXPECT_EQ(reply.body, JSON::object({{"ok", JSON(true)}}));
}
#endif

}  // namespace
}  // namespace vorn
