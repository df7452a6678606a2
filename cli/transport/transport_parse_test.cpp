// What goes over the wire and how a reply is read, without a socket: the request's bytes, the
// chunked body, the status line, the header and the body of a reply.

#include <gtest/gtest.h>

#include <string>

#include "transport/test_transport.h"
#include "transport/transport.h"

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

TEST(TransportDechunk, InPlaceMovesTheDataToTheFront) {
  std::string body = "3\r\nabc\r\n2;x\r\nde\r\n0\r\n\r\n";
  size_t size = Transport::dechunkInPlace(body.data(), body.size());
  EXPECT_EQ(body.substr(0, size), "abcde");
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

TEST(TransportParse, RawResponseRepairsInvalidUtf8) {
  RawReply raw = Transport::parseRawResponse("HTTP/1.1 200 OK\r\n\r\n\"a\xff\"");
  EXPECT_EQ(raw.body, "\"a\xEF\xBF\xBD\"");
}

}  // namespace
}  // namespace vorn
