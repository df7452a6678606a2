// The HTTP reply parser and the dechunker, fed the bytes an instance might send.
//
// The input is tried three ways: as a whole reply; as a chunked body on its own; and, cut
// into chunks of sizes taken from its first bytes, as the payload of a chunked reply, which
// must come back unchanged.
#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <vector>

#include "fuzz_check.h"
#include "json/block_writer.h"
#include "json/json.h"
#include "transport/transport.h"

using namespace vorn;
using vorn::fuzz::check;

namespace {

bool knownFailure(const std::string& description) {
  return description == "malformed HTTP reply" || description == "malformed HTTP status line" ||
         description == "malformed chunk size" || description == "truncated chunk";
}

std::string lowered(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// A reply: a failure is one of the four descriptions (and a reply without a blank line can
// only be malformed); a success has valid UTF-8 text, and its JSON value and its reformatted
// text agree.
void checkReply(std::string_view bytes) {
  size_t headerEnd = bytes.find("\r\n\r\n");
  RawReply raw;
  try {
    raw = Transport::parseRawResponse(std::string(bytes));
  } catch (const TransportError& e) {
    check(knownFailure(e.description), "a reply fails with a known description", e.description);
    if (headerEnd == std::string_view::npos) {
      check(e.description == "malformed HTTP reply", "no blank line is a malformed reply",
            e.description);
    }
    return;
  }
  check(headerEnd != std::string_view::npos, "a reply without a blank line is refused");
  check(raw.status >= 0, "the status is not negative");
  check(isValidUTF8(raw.body), "the body is valid UTF-8", raw.body);

  // Without chunking the body is the bytes after the header, perhaps cut short (checked on
  // ASCII, where cutting cannot split a character).
  std::string_view rest = bytes.substr(headerEnd + 4);
  bool ascii = true;
  for (char c : rest)
    ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  if (lowered(bytes.substr(0, headerEnd)).find("chunked") == std::string::npos && ascii) {
    check(rest.substr(0, raw.body.size()) == raw.body, "a plain body is the bytes that came");
  }

  Reply reply = Transport::toReply(raw);
  check(reply.status == raw.status, "the status is kept");
  // Printed in small blocks, compact and indented, at the depths the CLI prints replies at.
  for (int indent : {0, 2}) {
    for (int depth : {0, 3}) {
      std::string joined, expected;
      BlockWriter out([&](std::string_view block) { joined += block; }, 16);
      Transport::writeBody(raw, indent, depth, out);
      out.flush();
      reply.body.write(expected, indent, depth);
      check(joined == expected, "the body's blocks are its value written at its depth",
            raw.body);
    }
  }
  check(Transport::parseResponse(bytes).body == reply.body, "both ways to a reply agree");
}

// A chunked body: a failure is one of the two chunk descriptions; what comes out is never
// more than went in.
void checkChunkedBody(std::string_view bytes) {
  try {
    std::string out = Transport::dechunk(bytes);
    check(out.size() <= bytes.size(), "dechunking never grows the data");
  } catch (const TransportError& e) {
    check(e.description == "malformed chunk size" || e.description == "truncated chunk",
          "dechunking fails with a chunk description", e.description);
  }
}

std::string hex(size_t n, bool upper) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string out;
  do {
    out.insert(out.begin(), digits[n % 16]);
    n /= 16;
  } while (n);
  return out;
}

// The payload sent chunked in pieces of the sizes the provider picks, with extensions and
// padding now and then, comes back whole, alone and inside a reply.
void checkChunkRoundTrip(FuzzedDataProvider& provider) {
  std::vector<size_t> sizes;
  for (int i = 0; i < 8 && provider.remaining_bytes() > 0; ++i)
    sizes.push_back(provider.ConsumeIntegralInRange<size_t>(1, 64));
  bool upper = provider.ConsumeBool();
  bool extensions = provider.ConsumeBool();
  bool finalChunk = provider.ConsumeBool();
  std::string payload = provider.ConsumeRemainingBytesAsString();

  std::string body;
  size_t at = 0;
  for (size_t i = 0; at < payload.size(); ++i) {
    size_t n =
        std::min(payload.size() - at, sizes.empty() ? payload.size() : sizes[i % sizes.size()]);
    body += hex(n, upper) + (extensions && i % 2 ? " ;ext=1" : "") + "\r\n";
    body.append(payload, at, n);
    body += "\r\n";
    at += n;
  }
  if (finalChunk) body += "0\r\nTrailer: x\r\n\r\n";

  std::string decoded;
  try {
    decoded = Transport::dechunk(body);
  } catch (const TransportError& e) {
    fuzz::broken("well-formed chunks decode", e.description);
  }
  check(decoded == payload, "chunks join to the payload", body);

  std::string reply = "HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked\r\nContent-Length: 1\r\n\r\n";
  RawReply raw = Transport::parseRawResponse(reply + body);
  check(raw.status == 200, "the status of a chunked reply");
  check(raw.body == toValidUTF8(payload), "a chunked reply's body is the payload", raw.body);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes = fuzz::text(data, size);
  checkReply(bytes);
  checkChunkedBody(bytes);
  FuzzedDataProvider provider(data, size);
  checkChunkRoundTrip(provider);
  return 0;
}
