// The control socket client: one HTTP/1.1 exchange per connection over AF_UNIX.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "json/block_writer.h"
#include "json/json.h"
#include "transport/reply_bytes.h"

namespace vorn {

struct Reply {
  int status = 0;
  JSON body;
  bool ok() const { return status >= 200 && status <= 299; }
};

// A reply before its body is read as JSON: the status and the body as valid UTF-8 text.
struct RawReply {
  int status = 0;
  ReplyBytes body;  // valid UTF-8: ill-formed sequences were replaced when it was received
  bool ok() const { return status >= 200 && status <= 299; }
};

struct TransportError {
  std::string description;
};

namespace Transport {

// The most bytes a reply may bring (header included); one more is the transport error
// "reply too large: over <N> MiB", and the rest of the reply is not read. A reply is held whole
// before anything of it is used, so the limit bounds the memory a misbehaving instance can take.
// An instance record or a health reply is a few hundred bytes:
inline constexpr size_t recordReplyBytes = size_t{1} << 20;
// A reply read as a value, which takes a few times its size in memory:
inline constexpr size_t valueReplyBytes = size_t{64} << 20;
// A reply printed as text, which is held once and printed in blocks (a whole file tree):
inline constexpr size_t textReplyBytes = size_t{256} << 20;

// Throws TransportError.
Reply request(const std::string& sock, std::string_view method, std::string_view path,
              const JSON* body = nullptr, size_t maxBytes = valueReplyBytes);
// The same exchange, with the body left as text (for printing large replies without
// building them as values first). Throws TransportError.
RawReply exchange(const std::string& sock, std::string_view method, std::string_view path,
                  const JSON* body = nullptr, size_t maxBytes = textReplyBytes);
// The same exchange with a server that must be the process `serverPid` (a host we started
// ourselves); any other process at that path is a transport error. Throws TransportError.
RawReply exchangeWith(const std::string& sock, std::string_view method, std::string_view path,
                      const JSON* body, size_t maxBytes, std::optional<pid_t> serverPid);
Reply requestFrom(pid_t serverPid, const std::string& sock, std::string_view method,
                  std::string_view path);
// The body read as JSON; a body that is not JSON becomes {"error": "HTTP <status>: not JSON
// (<its first 120 characters>)"}.
Reply toReply(const RawReply& raw);
JSON notJSON(int status, std::string_view text);
// The same text as toReply(raw).body.write(text, indent, depth) would add, handed on a block at a
// time: a large reply is printed without being held twice.
void writeBody(const RawReply& raw, int indent, int depth, BlockWriter& out);
// The body as a user sees it printed: its text at indent 2 and a line feed, in blocks.
void printBody(const RawReply& raw, const std::function<void(std::string_view)>& write);
// A GET whose failures are folded into the returned value; never throws.
JSON getJSON(const std::string& sock, std::string_view path, size_t maxBytes = valueReplyBytes);

// The request bytes that request() sends (exposed for tests).
std::string buildRequest(std::string_view method, std::string_view path, const JSON* body);
// Parses raw reply bytes; throws TransportError.
RawReply parseRawResponse(std::string_view bytes);
RawReply parseRawResponse(ReplyBytes bytes);
Reply parseResponse(std::string_view bytes);
// Decodes a chunked body; throws TransportError.
std::string dechunk(std::string_view body);
// The same, decoding the body where it stands (the decoded bytes are never longer) and returning
// their length. Throws TransportError.
size_t dechunkInPlace(char* body, size_t size);

}  // namespace Transport
}  // namespace vorn
