// How a connect treats a full listen queue, with the system's answers injected.

#include "transport/listen_queue.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "paths/test_files.h"
#include "transport/transport.h"

namespace vorn {
namespace {

using Clock = std::chrono::steady_clock;

// A connect that answers from a script, then succeeds.
struct ScriptedConnect {
  std::vector<int> answers;
  size_t calls = 0;
  int operator()() { return calls < answers.size() ? answers[calls++] : (++calls, 0); }
};

TEST(ConnectPatiently, AFullQueueOnLinuxIsTriedAgainUntilThereIsRoom) {
  ScriptedConnect connect{{EAGAIN, EAGAIN}};
  int asked = 0;
  int err = Transport::connectPatiently(std::ref(connect), [&] { return ++asked, false; },
                                        Deadline(std::nullopt));
  EXPECT_EQ(err, 0);
  EXPECT_EQ(connect.calls, 3u);
  EXPECT_EQ(asked, 0);  // EAGAIN needs no second opinion
}

TEST(ConnectPatiently, ARefusalBlamedOnAFullQueueIsTriedAgain) {
  // macOS: a live instance under load refuses while its queue is full, then takes the connection.
  ScriptedConnect connect{{ECONNREFUSED, ECONNREFUSED, ECONNREFUSED}};
  int asked = 0;
  int err = Transport::connectPatiently(std::ref(connect), [&] { return ++asked, true; },
                                        Deadline(std::nullopt));
  EXPECT_EQ(err, 0);
  EXPECT_EQ(connect.calls, 4u);
  EXPECT_EQ(asked, 3);
}

TEST(ConnectPatiently, ARefusalWithNoListenerIsReportedAtOnce) {
  ScriptedConnect connect{{ECONNREFUSED, ECONNREFUSED}};
  auto start = Clock::now();
  int err = Transport::connectPatiently(std::ref(connect), [] { return false; },
                                        Deadline(std::nullopt));
  EXPECT_EQ(err, ECONNREFUSED);
  EXPECT_EQ(connect.calls, 1u);
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(100));
}

TEST(ConnectPatiently, AQueueThatStaysFullEndsAtTheDeadline) {
  ScriptedConnect connect{std::vector<int>(100000, ECONNREFUSED)};
  try {
    Transport::connectPatiently(std::ref(connect), [] { return true; }, Deadline(0.05));
    FAIL() << "no timeout";
  } catch (const TransportError& e) {
    EXPECT_EQ(e.description, "timed out after 0.05s");
  }
  EXPECT_GT(connect.calls, 1u);
}

TEST(ConnectPatiently, OtherErrorsAreReportedAtOnce) {
  ScriptedConnect connect{{ENOENT}};
  int asked = 0;
  EXPECT_EQ(Transport::connectPatiently(std::ref(connect), [&] { return ++asked, true; },
                                        Deadline(std::nullopt)),
            ENOENT);
  EXPECT_EQ(asked, 0);
}

TEST(RefusalMayBeFullQueue, ASocketNobodyListensOnIsNotBlamedOnAQueue) {
  // A socket file left bound without a listener, in a folder named after this live process.
  testing::TempDir tmp;
  std::string folder = tmp.path() + "/" + std::to_string(::getpid());
  ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
  std::string sock = folder + "/fs.sock";
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, sock.data(), sock.size());
  ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
  EXPECT_FALSE(Transport::refusalMayBeFullQueue(sock));
  EXPECT_FALSE(Transport::refusalMayBeFullQueue(tmp.path() + "/nothing/fs.sock"));
  ::close(fd);
}

}  // namespace
}  // namespace vorn
