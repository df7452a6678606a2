// The exchange with a server over a real Unix socket: the bytes sent, the reply taken, the ways
// a peer can fail it, socket paths, and getJSON.

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "paths/test_files.h"
#include "transport/test_transport.h"
#include "transport/transport.h"

namespace vorn {
namespace {

using namespace std::string_literals;

using testing::describe;
using testing::okReply;
using testing::TempDir;
using testing::TestServer;

// Makes SIGPIPE fatal again for a scope, so a write that raised it would end the test run.
class DefaultSigpipe {
 public:
  DefaultSigpipe() { previous_ = ::signal(SIGPIPE, SIG_DFL); }
  ~DefaultSigpipe() { ::signal(SIGPIPE, previous_); }

 private:
  void (*previous_)(int);
};

TEST(TransportRequest, GetSendsExactBytesAndParsesTheReply) {
  TestServer server;
  server.serve(TestServer::Mode::reply,
               "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 17\r\n"
               "\r\n{\"id\":\"a1\",\"n\":2}");
  Reply r = Transport::request(server.path(), "GET", "/instance");
  EXPECT_EQ(server.received(),
            "GET /instance HTTP/1.1\r\nHost: unix\r\nConnection: close\r\nAccept: */*\r\n\r\n");
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.body, JSON::object({{"id", JSON("a1")}, {"n", JSON(2)}}));
}

TEST(TransportRequest, PostSendsTheCompactBody) {
  TestServer server;
  server.serve(TestServer::Mode::reply, "HTTP/1.1 200 OK\r\n\r\n{\"ok\":true}");
  JSON body = JSON::object({{"path", JSON("/w/a b.go")}, {"line", JSON(3)}});
  Reply r = Transport::request(server.path(), "POST", "/openFile", &body);
  EXPECT_EQ(server.received(),
            "POST /openFile HTTP/1.1\r\nHost: unix\r\nConnection: close\r\nAccept: */*\r\n"
            "Content-Type: application/json\r\nContent-Length: 29\r\n\r\n"
            "{\"path\":\"/w/a b.go\",\"line\":3}");
  EXPECT_EQ(r.body, JSON::object({{"ok", JSON(true)}}));
}

TEST(TransportRequest, PostWithoutBody) {
  TestServer server;
  server.serve(TestServer::Mode::reply, "HTTP/1.1 202 Accepted\r\n\r\n{}");
  Reply r = Transport::request(server.path(), "POST", "/quit");
  EXPECT_EQ(server.received(), Transport::buildRequest("POST", "/quit", nullptr));
  EXPECT_EQ(r.status, 202);
}

TEST(TransportRequest, ChunkedReply) {
  TestServer server;
  server.serve(TestServer::Mode::reply,
               "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
               "3\r\n[1,\r\n2\r\n2]\r\n0\r\n\r\n");
  Reply r = Transport::request(server.path(), "GET", "/x");
  EXPECT_EQ(r.body, JSON::array({JSON(1), JSON(2)}));
}

TEST(TransportRequest, LargeReplyArrivesWhole) {
  const size_t size = 20 * 1024 * 1024;
  std::string text(size, 'a');
  TestServer server;
  server.serve(TestServer::Mode::reply, "HTTP/1.1 200 OK\r\nContent-Length: " +
                                            std::to_string(size + 2) + "\r\n\r\n\"" + text + "\"");
  Reply r = Transport::request(server.path(), "GET", "/tree");
  ASSERT_NE(r.body.string(), std::nullopt);
  EXPECT_EQ(*r.body.string(), text);
}

TEST(TransportRequest, ExchangeLeavesTheBodyAsText) {
  TestServer server;
  server.serve(TestServer::Mode::reply,
               "HTTP/1.1 201 Created\r\nContent-Length: 12\r\n\r\n{\"a\": [1, 2]}extra");
  RawReply raw = Transport::exchange(server.path(), "GET", "/x");
  EXPECT_EQ(raw.status, 201);
  EXPECT_EQ(raw.body, "{\"a\": [1, 2]");
  EXPECT_EQ(Transport::toReply(raw).body.serialized(0),
            "{\"error\":\"HTTP 201: not JSON ({\\\"a\\\": [1, 2])\"}");
}

// A length far beyond what arrives is not trusted for the receive buffer.
TEST(TransportRequest, AHugeAnnouncedLengthIsNotAllocated) {
  TestServer server;
  server.serve(TestServer::Mode::reply,
               "HTTP/1.1 200 OK\r\nContent-Length: 9000000000000000000\r\n\r\n{\"ok\":true}");
  RawReply raw = Transport::exchange(server.path(), "GET", "/x");
  EXPECT_TRUE(raw.ok());
  EXPECT_EQ(raw.body, "{\"ok\":true}");
  // Received into the first piece of room: nothing near the announced size was set aside.
  EXPECT_LT(raw.body.spareSize(), size_t{1} << 20);
}

TEST(TransportRequest, AnnouncedLengthLargerThanTheBodyTakesWhatCame) {
  TestServer server;
  server.serve(TestServer::Mode::reply, "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n[1]");
  EXPECT_EQ(Transport::request(server.path(), "GET", "/x").body.serialized(0), "[1]");
}

TEST(TransportRequest, CloseWithoutReplyIsMalformed) {
  TestServer server;
  server.serve(TestServer::Mode::closeAfterRequest);
  EXPECT_EQ(describe([&] { Transport::request(server.path(), "GET", "/instance"); }),
            "malformed HTTP reply");
  EXPECT_EQ(server.received(), Transport::buildRequest("GET", "/instance", nullptr));
}

TEST(TransportRequest, PeerClosingEarlyIsAnErrorNotASignal) {
  DefaultSigpipe fatal;
  TestServer server;
  server.serve(TestServer::Mode::closeAtOnce);
  std::string error = describe([&] { Transport::request(server.path(), "GET", "/instance"); });
  // Which of these depends on how far the request got before the peer went away.
  EXPECT_TRUE(error == "malformed HTTP reply" || error.rfind("write: ", 0) == 0 ||
              error.rfind("read: ", 0) == 0)
      << error;
}

TEST(TransportRequest, PeerClosingDuringALargeWriteIsAWriteError) {
  DefaultSigpipe fatal;
  TestServer server;
  server.serve(TestServer::Mode::closeAtOnce);
  // Far more than a socket buffer holds, so the write is still going when the peer closes.
  JSON body = JSON::object({{"text", JSON(std::string(16 * 1024 * 1024, 'x'))}});
  std::string error = describe([&] { Transport::request(server.path(), "POST", "/write", &body); });
  EXPECT_EQ(error.rfind("write: ", 0), 0u) << error;
}

TEST(TransportRequest, ResetInTheMiddleOfTheHeaderIsAReadError) {
  TestServer server;
  // Closing over a request it never read resets the connection; what was sent before the reset
  // arrives first.
  server.serve(TestServer::Mode::replyUnread, "HTTP/1.1 200 OK\r\nContent-Ty");
  std::string error = describe([&] { Transport::request(server.path(), "GET", "/health"); });
#ifdef __linux__
  EXPECT_EQ(error, "read: "s + std::strerror(ECONNRESET));
#else
  // Elsewhere the unread request may be dropped quietly, and the reply simply stops.
  EXPECT_TRUE(error == "read: "s + std::strerror(ECONNRESET) || error == "malformed HTTP reply")
      << error;
#endif
}

// Received in pieces, the blank line split across them, the header still tells the body's length,
// and the reply is received into a block of exactly that size.
TEST(TransportRequest, AHeaderArrivingInPiecesStillSizesTheReply) {
  TestServer server;
  std::string body = "\"" + std::string(200000, 'x') + "\"";
  server.serve(TestServer::Mode::replyHeaderSlowly, okReply(body));
  RawReply raw = Transport::exchange(server.path(), "GET", "/x");
  EXPECT_EQ(raw.body, body);
  EXPECT_EQ(raw.body.spareSize(), 1u);
}

TEST(TransportRequest, SocketPathOf104BytesIsTooLong) {
  std::string path = "/tmp/" + std::string(99, 's');
  ASSERT_EQ(path.size(), 104u);
  EXPECT_EQ(describe([&] { Transport::request(path, "GET", "/instance"); }),
            "socket path too long: " + path);
  EXPECT_EQ(Transport::getJSON(path, "/instance"),
            JSON::object({{"error", JSON("socket path too long: " + path)}}));
}

TEST(TransportRequest, SocketPathOf103BytesIsAccepted) {
  TempDir probe;  // same length as the server's own folder
  size_t nameLength = 103 - probe.path().size() - 1;
  TestServer server(std::string(nameLength, 'n'));
  ASSERT_EQ(server.path().size(), 103u);
  server.serve(TestServer::Mode::reply, "HTTP/1.1 200 OK\r\n\r\n{}");
  EXPECT_EQ(Transport::request(server.path(), "GET", "/instance").body, JSON::object());
}

TEST(TransportRequest, MissingSocket) {
  TempDir dir;
  std::string path = dir.path() + "/fs.sock";
  EXPECT_EQ(describe([&] { Transport::request(path, "GET", "/instance"); }),
            "connect " + path + ": No such file or directory");
}

TEST(TransportRequest, ParallelRequestsShareNothing) {
  constexpr int count = 4;
  std::vector<std::unique_ptr<TestServer>> servers;
  for (int i = 0; i < count; ++i) {
    servers.push_back(std::make_unique<TestServer>());
    servers.back()->serve(TestServer::Mode::reply,
                          "HTTP/1.1 200 OK\r\n\r\n{\"n\":" + std::to_string(i) + "}");
  }
  std::vector<JSON> results(count);
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] { results[i] = Transport::getJSON(servers[i]->path(), "/n"); });
  }
  for (auto& t : threads)
    t.join();
  for (int i = 0; i < count; ++i)
    EXPECT_EQ(results[i], JSON::object({{"n", JSON(i)}}));
}

// ---------------------------------------------------------------------------------------
// getJSON

TEST(TransportGetJSON, OkReturnsTheBody) {
  TestServer server;
  server.serve(TestServer::Mode::reply, "HTTP/1.1 200 OK\r\n\r\n[1]");
  EXPECT_EQ(Transport::getJSON(server.path(), "/x"), JSON::array({JSON(1)}));
  EXPECT_EQ(server.received(), Transport::buildRequest("GET", "/x", nullptr));
}

TEST(TransportGetJSON, NotOkKeepsTheBodysOwnError) {
  TestServer server;
  server.serve(TestServer::Mode::reply,
               "HTTP/1.1 404 Not Found\r\n\r\n{\"error\":\"no such file\",\"code\":7}");
  EXPECT_EQ(Transport::getJSON(server.path(), "/x"),
            JSON::object({{"error", JSON("no such file")}}));
}

TEST(TransportGetJSON, NotOkWithoutErrorTextNamesTheStatus) {
  TestServer server;
  server.serve(TestServer::Mode::reply, "HTTP/1.1 500 Oops\r\n\r\n{\"error\":42}");
  EXPECT_EQ(Transport::getJSON(server.path(), "/x"), JSON::object({{"error", JSON("HTTP 500")}}));
}

TEST(TransportGetJSON, NotOkAndNotJSON) {
  TestServer server;
  server.serve(TestServer::Mode::reply, "HTTP/1.1 503 Busy\r\n\r\ntry later");
  EXPECT_EQ(Transport::getJSON(server.path(), "/x"),
            JSON::object({{"error", JSON("HTTP 503: not JSON (try later)")}}));
}

TEST(TransportGetJSON, TransportFailuresBecomeErrorObjects) {
  TempDir dir;
  std::string path = dir.path() + "/fs.sock";
  EXPECT_EQ(Transport::getJSON(path, "/instance"),
            JSON::object({{"error", JSON("connect " + path + ": No such file or directory")}}));

  TestServer server;
  server.serve(TestServer::Mode::reply, "HTTP/1.1 abc\r\n\r\n{}");
  EXPECT_EQ(Transport::getJSON(server.path(), "/x"),
            JSON::object({{"error", JSON("malformed HTTP status line")}}));
}

}  // namespace
}  // namespace vorn
