// How much of a reply is read before it is too large, and a large body printed in blocks.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "transport/test_transport.h"
#include "transport/transport.h"

namespace vorn {
namespace {

using testing::describe;
using testing::okReply;
using testing::TestServer;

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

TEST(TransportLimit, AnUnannouncedReplyNeverGetsMoreRoomThanTheLimit) {
  // Past the first 64 KiB of room the block doubles, but not beyond the limit and one byte.
  const size_t limit = 100 << 10;
  std::string body = "\"" + std::string(90 << 10, 'a') + "\"";
  std::string reply = okReply(body);
  reply.replace(reply.find("Content-Length"), 14, "X-Length");
  TestServer server;
  server.serve(TestServer::Mode::reply, reply);
  RawReply raw = Transport::exchange(server.path(), "GET", "/x", nullptr, limit);
  EXPECT_EQ(raw.body, body);
  EXPECT_LE(raw.body.size() + raw.body.spareSize(), limit + 1);
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

// A reply's ill-formed bytes are replaced once, as it arrives; its strings are then read without
// a check of their own, and both ways of using a reply give the same valid text.
TEST(TransportPrintBody, IllFormedBytesArePrintedAndParsedAlike) {
  RawReply raw = Transport::parseRawResponse(okReply(
      "{\"bad\xff\":[\"a\xc3" "b\",\"caf\\u00e9 \xe6\x95\xb0\",\"tab\\tand\x01raw\",\"cut \xe6\x95\"]}"));
  const std::string expected =
      "{\n  \"bad\xEF\xBF\xBD\": [\n    \"a\xEF\xBF\xBD" "b\",\n    \"caf\xC3\xA9 \xE6\x95\xB0\",\n"
      "    \"tab\\tand\\u0001raw\",\n    \"cut \xEF\xBF\xBD\"\n  ]\n}\n";
  std::string printed;
  Transport::printBody(raw, [&](std::string_view text) { printed += text; });
  EXPECT_EQ(printed, expected);
  JSON value = Transport::toReply(raw).body;
  EXPECT_EQ(value.serialized(2) + "\n", expected);
  std::string copied;
  JSON(value).printTo([&](std::string_view text) { copied += text; });
  EXPECT_EQ(copied, expected);
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

}  // namespace
}  // namespace vorn
