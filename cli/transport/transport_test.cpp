#include "transport/transport.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "paths/test_files.h"
#include "transport/test_transport.h"

namespace vorn {
namespace {

using namespace std::string_literals;

using testing::describe;

std::string parseError(std::string_view bytes) {
  return describe([&] { Transport::parseResponse(bytes); });
}

std::string dechunkError(std::string_view bytes) {
  return describe([&] { Transport::dechunk(bytes); });
}

std::string errorText(const JSON& body) {
  return body.error().value_or("<no error key>");
}

std::string repeat(std::string_view s, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i)
    out.append(s);
  return out;
}

// ---------------------------------------------------------------------------------------
// buildRequest

TEST(TransportBuildRequest, GetWithoutBodyHasNoContentHeaders) {
  EXPECT_EQ(Transport::buildRequest("GET", "/instance", nullptr),
            "GET /instance HTTP/1.1\r\n"
            "Host: unix\r\n"
            "Connection: close\r\n"
            "Accept: */*\r\n"
            "\r\n");
}

TEST(TransportBuildRequest, PostWithoutBodyAnnouncesZeroLength) {
  EXPECT_EQ(Transport::buildRequest("POST", "/quit", nullptr),
            "POST /quit HTTP/1.1\r\n"
            "Host: unix\r\n"
            "Connection: close\r\n"
            "Accept: */*\r\n"
            "Content-Length: 0\r\n"
            "\r\n");
}

TEST(TransportBuildRequest, PostWithBodyIsCompactJSON) {
  JSON body = JSON::object({{"path", JSON("/w/main.go")}, {"line", JSON(12)}});
  EXPECT_EQ(Transport::buildRequest("POST", "/openFile", &body),
            "POST /openFile HTTP/1.1\r\n"
            "Host: unix\r\n"
            "Connection: close\r\n"
            "Accept: */*\r\n"
            "Content-Type: application/json\r\n"
            "Content-Length: 31\r\n"
            "\r\n"
            "{\"path\":\"/w/main.go\",\"line\":12}");
}

TEST(TransportBuildRequest, ContentLengthCountsBytesNotCharacters) {
  JSON body = JSON::object({{"q", JSON("\xC3\xA9\xF0\x9F\x98\x80")}});  // é and an emoji
  std::string text = Transport::buildRequest("POST", "/search", &body);
  EXPECT_NE(text.find("Content-Length: 14\r\n"), std::string::npos) << text;
  EXPECT_TRUE(text.ends_with("\r\n\r\n{\"q\":\"\xC3\xA9\xF0\x9F\x98\x80\"}"));
}

TEST(TransportBuildRequest, BodyOnAnyMethodAndQueryKept) {
  JSON body = JSON::array({JSON(1)});
  EXPECT_EQ(Transport::buildRequest("GET", "/search?q=a%20b&max=5", &body),
            "GET /search?q=a%20b&max=5 HTTP/1.1\r\n"
            "Host: unix\r\n"
            "Connection: close\r\n"
            "Accept: */*\r\n"
            "Content-Type: application/json\r\n"
            "Content-Length: 3\r\n"
            "\r\n"
            "[1]");
  // Only POST announces a zero length without a body.
  EXPECT_EQ(Transport::buildRequest("DELETE", "/x", nullptr).find("Content-Length"),
            std::string::npos);
}

// ---------------------------------------------------------------------------------------
// dechunk

TEST(TransportDechunk, SeveralChunksAreJoined) {
  EXPECT_EQ(Transport::dechunk("4\r\n{\"a\"\r\n3\r\n:1}\r\n0\r\n\r\n"), "{\"a\":1}");
}

TEST(TransportDechunk, HexSizesInEitherCase) {
  std::string a = repeat("x", 10), b = repeat("y", 26);
  EXPECT_EQ(Transport::dechunk("A\r\n" + a + "\r\n1a\r\n" + b + "\r\n0\r\n\r\n"), a + b);
  EXPECT_EQ(Transport::dechunk("a\r\n" + a + "\r\n1A\r\n" + b + "\r\n0\r\n\r\n"), a + b);
}

TEST(TransportDechunk, ExtensionsAndSurroundingWhitespaceIgnored) {
  EXPECT_EQ(Transport::dechunk("5;name=value\r\nhello\r\n 1 ; x\r\n!\r\n0;last\r\n\r\n"), "hello!");
  EXPECT_EQ(Transport::dechunk("\t3 \r\nabc\r\n0\r\n\r\n"), "abc");
}

TEST(TransportDechunk, ZeroChunkEndsTheBodyTrailersUnread) {
  EXPECT_EQ(Transport::dechunk("3\r\nabc\r\n0\r\nX-Trailer: 1\r\n\r\nzz\r\n"), "abc");
  EXPECT_EQ(Transport::dechunk("0\r\n\r\n"), "");
  EXPECT_EQ(Transport::dechunk("000\r\n"), "");
}

TEST(TransportDechunk, MissingFinalChunkTolerated) {
  EXPECT_EQ(Transport::dechunk("3\r\nabc\r\n"), "abc");
  EXPECT_EQ(Transport::dechunk("3\r\nabc"), "abc");
  EXPECT_EQ(Transport::dechunk("3\r\nabc\r\n4"), "abc");  // a size line without its line end
  EXPECT_EQ(Transport::dechunk(""), "");
}

TEST(TransportDechunk, ChunkDataMayHoldLineEnds) {
  EXPECT_EQ(Transport::dechunk("4\r\n\r\n\r\n\r\n0\r\n\r\n"), "\r\n\r\n");
}

TEST(TransportDechunk, MalformedChunkSize) {
  EXPECT_EQ(dechunkError("zz\r\nabc\r\n0\r\n\r\n"), "malformed chunk size");
  EXPECT_EQ(dechunkError("\r\nabc"), "malformed chunk size");
  EXPECT_EQ(dechunkError("  ;ext\r\nabc"), "malformed chunk size");
  EXPECT_EQ(dechunkError("0x10\r\nabc"), "malformed chunk size");
  EXPECT_EQ(dechunkError("-5\r\nabc"), "malformed chunk size");
  EXPECT_EQ(dechunkError("1 2\r\nabc"), "malformed chunk size");
  EXPECT_EQ(dechunkError("3\r\nabc\r\ng\r\n"), "malformed chunk size");
  EXPECT_EQ(dechunkError("\xC3\xA9\r\nabc"), "malformed chunk size");
  // Too large for any size type: malformed, never wrapped round.
  EXPECT_EQ(dechunkError("1FFFFFFFFFFFFFFFF\r\nabc"), "malformed chunk size");
}

TEST(TransportDechunk, TruncatedChunk) {
  EXPECT_EQ(dechunkError("10\r\nabcde"), "truncated chunk");
  EXPECT_EQ(dechunkError("3\r\nabc\r\n4\r\nab"), "truncated chunk");
  EXPECT_EQ(dechunkError("FFFFFFFFFFFFFFFF\r\nabc"), "truncated chunk");
}

// ---------------------------------------------------------------------------------------
// parseResponse

TEST(TransportParseResponse, PlainJSONReply) {
  Reply r = Transport::parseResponse(
      "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 7\r\n\r\n{\"a\":1}");
  EXPECT_EQ(r.status, 200);
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(r.body, JSON::object({{"a", JSON(1)}}));
}

TEST(TransportParseResponse, OkIsTwoHundredsOnly) {
  EXPECT_FALSE(Transport::parseResponse("HTTP/1.1 199 X\r\n\r\n{}").ok());
  EXPECT_TRUE(Transport::parseResponse("HTTP/1.1 299 X\r\n\r\n{}").ok());
  EXPECT_FALSE(Transport::parseResponse("HTTP/1.1 300 X\r\n\r\n{}").ok());
  EXPECT_FALSE(Transport::parseResponse("HTTP/1.1 404 Not Found\r\n\r\n{}").ok());
}

TEST(TransportParseResponse, ChunkedBodyIsJoined) {
  Reply r = Transport::parseResponse(
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
      "5\r\n{\"ids\r\n6\r\n\":[1,2\r\n2\r\n]}\r\n0\r\n\r\n");
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.body, JSON::object({{"ids", JSON::array({JSON(1), JSON(2)})}}));
}

TEST(TransportParseResponse, HeaderNamesIgnoreCaseAndValuesAreTrimmed) {
  Reply r = Transport::parseResponse(
      "HTTP/1.1 200 OK\r\ntRaNsFeR-eNcOdInG: \t Chunked \r\n\r\n2\r\n[]\r\n0\r\n\r\n");
  EXPECT_EQ(r.body, JSON::array());
  Reply cut = Transport::parseResponse("HTTP/1.1 200 OK\r\nCONTENT-LENGTH:  2 \r\n\r\n[]xyz");
  EXPECT_EQ(cut.body, JSON::array());
}

TEST(TransportParseResponse, ChunkedWinsOverContentLength) {
  Reply r = Transport::parseResponse(
      "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n"
      "2\r\n[]\r\n0\r\n\r\n");
  EXPECT_EQ(r.body, JSON::array());
}

TEST(TransportParseResponse, OtherTransferEncodingsAreNotDechunked) {
  Reply r = Transport::parseResponse(
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n2\r\n[]\r\n0\r\n\r\n");
  EXPECT_EQ(errorText(r.body).rfind("HTTP 200: not JSON (2\r\n[]", 0), 0u);
}

TEST(TransportParseResponse, ChunkErrorsPropagate) {
  EXPECT_EQ(parseError("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n{}\r\n"),
            "malformed chunk size");
  EXPECT_EQ(parseError("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10\r\n{\"a\"}"),
            "truncated chunk");
}

TEST(TransportParseResponse, ChunkedWithoutFinalChunk) {
  Reply r =
      Transport::parseResponse("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n");
  EXPECT_EQ(r.body, JSON::object());
}

TEST(TransportParseResponse, ContentLengthShorterThanReceivedCutsTheBody) {
  Reply r =
      Transport::parseResponse("HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n{\"a\":1}garbage");
  EXPECT_EQ(r.body, JSON::object({{"a", JSON(1)}}));
}

TEST(TransportParseResponse, ContentLengthLongerThanReceivedKeepsWhatCame) {
  Reply r = Transport::parseResponse("HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\n{\"a\":1}");
  EXPECT_EQ(r.body, JSON::object({{"a", JSON(1)}}));
}

TEST(TransportParseResponse, UnusableContentLengthIsIgnored) {
  for (const char* value : {"-1", "abc", "", "7x", "+3", "99999999999999999999999"}) {
    Reply r =
        Transport::parseResponse("HTTP/1.1 200 OK\r\nContent-Length: "s + value + "\r\n\r\n[1, 2]");
    EXPECT_EQ(r.body, JSON::array({JSON(1), JSON(2)})) << value;
  }
}

TEST(TransportParseResponse, ContentLengthZeroEmptiesTheBody) {
  Reply r = Transport::parseResponse("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n{}");
  EXPECT_EQ(errorText(r.body), "HTTP 200: not JSON ()");
}

TEST(TransportParseResponse, NonJSONBodyBecomesAnErrorAndStatusIsKept) {
  Reply r = Transport::parseResponse("HTTP/1.1 200 OK\r\n\r\noops");
  EXPECT_EQ(r.status, 200);
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(r.body, JSON::object({{"error", JSON("HTTP 200: not JSON (oops)")}}));

  Reply html = Transport::parseResponse("HTTP/1.1 502 Bad Gateway\r\n\r\n<html>down</html>");
  EXPECT_EQ(html.status, 502);
  EXPECT_FALSE(html.ok());
  EXPECT_EQ(errorText(html.body), "HTTP 502: not JSON (<html>down</html>)");
}

TEST(TransportParseResponse, EmptyBodyIsNotJSON) {
  Reply r = Transport::parseResponse("HTTP/1.1 204 No Content\r\n\r\n");
  EXPECT_EQ(r.status, 204);
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(r.body, JSON::object({{"error", JSON("HTTP 204: not JSON ()")}}));
}

TEST(TransportParseResponse, ExcerptIsTheFirst120Characters) {
  // Two-byte characters: the cut is counted in characters, never in bytes.
  std::string e = "\xC3\xA9";
  Reply r = Transport::parseResponse("HTTP/1.1 500 X\r\n\r\n" + repeat(e, 130));
  EXPECT_EQ(errorText(r.body), "HTTP 500: not JSON (" + repeat(e, 120) + ")");

  // Mixed widths; the 121st character is never split.
  std::string mixed = repeat("a\xF0\x9F\x98\x80\xE2\x82\xAC", 40);  // 120 characters
  Reply exact = Transport::parseResponse("HTTP/1.1 500 X\r\n\r\n" + mixed);
  EXPECT_EQ(errorText(exact.body), "HTTP 500: not JSON (" + mixed + ")");
  Reply over = Transport::parseResponse("HTTP/1.1 500 X\r\n\r\n" + mixed + "\xF0\x9F\x98\x80z");
  EXPECT_EQ(errorText(over.body), "HTTP 500: not JSON (" + mixed + ")");

  std::string ascii = repeat("x", 121);
  Reply plain = Transport::parseResponse("HTTP/1.1 500 X\r\n\r\n" + ascii);
  EXPECT_EQ(errorText(plain.body), "HTTP 500: not JSON (" + ascii.substr(0, 120) + ")");
}

TEST(TransportParseResponse, InvalidUTF8BecomesReplacementCharacters) {
  Reply r = Transport::parseResponse(
      "HTTP/1.1 200 OK\r\n\r\n[\"a\xFF"
      "b\"]");
  EXPECT_EQ(r.body, JSON::array({JSON("a\xEF\xBF\xBD"
                                      "b")}));
  Reply text = Transport::parseResponse("HTTP/1.1 200 OK\r\n\r\nbad \xC3");
  EXPECT_EQ(errorText(text.body), "HTTP 200: not JSON (bad \xEF\xBF\xBD)");
}

TEST(TransportParseResponse, StatusWithoutReasonAndExtraSpaces) {
  EXPECT_EQ(Transport::parseResponse("HTTP/1.1 201\r\n\r\n{}").status, 201);
  EXPECT_EQ(Transport::parseResponse("HTTP/1.0 404 Not Found Here\r\n\r\n{}").status, 404);
  EXPECT_EQ(Transport::parseResponse("HTTP/1.1 200 OK\r\n\r\n{}").body, JSON::object());
}

TEST(TransportParseResponse, MalformedReply) {
  EXPECT_EQ(parseError(""), "malformed HTTP reply");
  EXPECT_EQ(parseError("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n{}"), "malformed HTTP reply");
  EXPECT_EQ(parseError("HTTP/1.1 200 OK\n\n{}"), "malformed HTTP reply");
  EXPECT_EQ(parseError("HTTP/1.1 200 OK\r\n\r"), "malformed HTTP reply");
}

TEST(TransportParseResponse, MalformedStatusLine) {
  EXPECT_EQ(parseError("HTTP/1.1 abc\r\n\r\n{}"), "malformed HTTP status line");
  EXPECT_EQ(parseError("HTTP/1.1\r\n\r\n{}"), "malformed HTTP status line");
  EXPECT_EQ(parseError("HTTP/1.1 \r\n\r\n{}"), "malformed HTTP status line");
  EXPECT_EQ(parseError("HTTP/1.1 20x OK\r\n\r\n{}"), "malformed HTTP status line");
  EXPECT_EQ(parseError("HTTP/1.1 -200 OK\r\n\r\n{}"), "malformed HTTP status line");
  EXPECT_EQ(parseError("HTTP/1.1 99999999999999999999 OK\r\n\r\n{}"), "malformed HTTP status line");
  EXPECT_EQ(parseError("\r\n\r\n{}"), "malformed HTTP status line");
}

TEST(TransportParseResponse, HeaderLinesWithoutColonAreSkipped) {
  Reply r =
      Transport::parseResponse("HTTP/1.1 200 OK\r\nnonsense\r\nContent-Length: 2\r\n\r\n[]tail");
  EXPECT_EQ(r.body, JSON::array());
}

// ---------------------------------------------------------------------------------------
// End to end over a real Unix socket

// Makes SIGPIPE fatal again for a scope, so a write that raised it would end the test run.
class DefaultSigpipe {
 public:
  DefaultSigpipe() { previous_ = ::signal(SIGPIPE, SIG_DFL); }
  ~DefaultSigpipe() { ::signal(SIGPIPE, previous_); }

 private:
  void (*previous_)(int);
};

using testing::TempDir;

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
  ASSERT_NE(r.body.string(), nullptr);
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
  Reply r = Transport::request(server.path(), "GET", "/x");
  EXPECT_TRUE(r.ok());
  EXPECT_TRUE(r.body.get("ok")->isTrue());
}

TEST(TransportRequest, AnnouncedLengthLargerThanTheBodyTakesWhatCame) {
  TestServer server;
  server.serve(TestServer::Mode::reply, "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n[1]");
  EXPECT_EQ(Transport::request(server.path(), "GET", "/x").body.serialized(0), "[1]");
}

// ---------------------------------------------------------------------------------------
// reply limits

std::string okReply(const std::string& body, bool chunked = false) {
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

TEST(TransportLimit, AReplyUpToTheLimitIsRead) {
  std::string body = "\"" + std::string(4000, 'a') + "\"";
  size_t whole = okReply(body).size();
  TestServer server;
  server.serve(TestServer::Mode::reply, okReply(body));
  EXPECT_EQ(Transport::exchange(server.path(), "GET", "/x", nullptr, whole).body, body);
}

TEST(TransportLimit, OneByteMoreIsTooLarge) {
  std::string body = "\"" + std::string(4000, 'a') + "\"";
  size_t whole = okReply(body).size();
  TestServer server;
  server.serve(TestServer::Mode::reply, okReply(body));
  EXPECT_EQ(describe([&] { Transport::exchange(server.path(), "GET", "/x", nullptr, whole - 1); }),
            "reply too large: over " + std::to_string(whole - 1) + " bytes");
}

TEST(TransportLimit, ChunkedAndUnannouncedRepliesAreCountedAsTheyCome) {
  std::string body = "\"" + std::string(3u << 20, 'a') + "\"";
  for (bool chunked : {false, true}) {
    std::string reply = okReply(body, chunked);
    if (!chunked) reply.replace(reply.find("Content-Length"), 14, "X-Length");
    TestServer server;
    server.serve(TestServer::Mode::reply, reply);
    EXPECT_EQ(describe([&] {
                Transport::request(server.path(), "GET", "/x", nullptr,
                                   Transport::recordReplyBytes);
              }),
              "reply too large: over 1 MiB")
        << (chunked ? "chunked" : "until the peer closes");
  }
}

TEST(TransportLimit, AHeaderThatNeverEndsStopsAtTheLimit) {
  TestServer server;
  server.serve(TestServer::Mode::reply, "HTTP/1.1 200 OK\r\nX-Pad: " + std::string(3u << 20, 'a'));
  EXPECT_EQ(describe([&] {
              Transport::request(server.path(), "GET", "/x", nullptr, Transport::recordReplyBytes);
            }),
            "reply too large: over 1 MiB");
}

// A length beyond the limit that the body does not bear out is taken as it came.
TEST(TransportLimit, AnAnnouncedLengthAloneIsNotTooLarge) {
  TestServer server;
  server.serve(TestServer::Mode::reply,
               "HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\n\r\n{\"ok\":true}");
  Reply r = Transport::request(server.path(), "GET", "/x", nullptr, Transport::recordReplyBytes);
  EXPECT_TRUE(r.body.get("ok")->isTrue());
}

TEST(TransportLimit, TheLimitsGrowWithWhatIsDoneWithTheReply) {
  EXPECT_EQ(Transport::recordReplyBytes, size_t{1} << 20);
  EXPECT_LT(Transport::recordReplyBytes, Transport::valueReplyBytes);
  EXPECT_LT(Transport::valueReplyBytes, Transport::textReplyBytes);
}

// ---------------------------------------------------------------------------------------
// printing a body

TEST(TransportPrintBody, ALargeBodyLeavesInBlocksAsTheValueWouldPrint) {
  std::string body = "[";
  for (int i = 0; i < 50000; ++i)
    body += (i ? ",{\"n\":" : "{\"n\":") + std::to_string(i) + ",\"s\":\"caf\u00e9\"}";
  body += "]";
  RawReply raw = Transport::parseRawResponse(okReply(body));
  std::vector<size_t> writes;
  std::string printed;
  Transport::printBody(raw, [&](std::string_view text) {
    writes.push_back(text.size());
    printed += text;
  });
  EXPECT_EQ(printed, JSON::parse(body).serialized(2) + "\n");
  ASSERT_GT(writes.size(), 4u);
  for (size_t size : writes)
    EXPECT_LE(size, BlockWriter::defaultBlockBytes + 1024);
}

TEST(TransportPrintBody, NotJSONPrintsTheErrorObjectAtItsDepth) {
  RawReply raw = Transport::parseRawResponse("HTTP/1.1 502 Bad\r\n\r\n<html>");
  std::string printed;
  Transport::printBody(raw, [&](std::string_view text) { printed += text; });
  EXPECT_EQ(printed, "{\n  \"error\": \"HTTP 502: not JSON (<html>)\"\n}\n");

  BlockWriter out([](std::string_view) {});
  Transport::writeBody(raw, 2, 2, out);
  EXPECT_EQ(out.text(), "{\n      \"error\": \"HTTP 502: not JSON (<html>)\"\n    }");
}

TEST(TransportDechunk, InPlaceMovesTheDataToTheFront) {
  std::string body = "3\r\nabc\r\n2;x\r\nde\r\n0\r\n\r\n";
  size_t size = Transport::dechunkInPlace(body.data(), body.size());
  EXPECT_EQ(body.substr(0, size), "abcde");
}

TEST(TransportParse, RawResponseRepairsInvalidUtf8) {
  RawReply raw = Transport::parseRawResponse("HTTP/1.1 200 OK\r\n\r\n\"a\xff\"");
  EXPECT_EQ(raw.body, "\"a\xEF\xBF\xBD\"");
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
