// The control socket client: one HTTP/1.1 exchange per connection over AF_UNIX.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "json/json.h"

namespace vorn {

struct Reply {
  int status = 0;
  JSON body;
  bool ok() const { return status >= 200 && status <= 299; }
};

// A reply before its body is read as JSON: the status and the body as valid UTF-8 text.
struct RawReply {
  int status = 0;
  std::string body;
};

struct TransportError {
  std::string description;
};

namespace Transport {

// Throws TransportError.
Reply request(const std::string& sock, std::string_view method, std::string_view path,
              const JSON* body = nullptr);
// The same exchange, with the body left as text (for printing large replies without
// building them as values first). Throws TransportError.
RawReply exchange(const std::string& sock, std::string_view method, std::string_view path,
                  const JSON* body = nullptr);
// The body read as JSON; a body that is not JSON becomes {"error": "HTTP <status>: not JSON
// (<its first 120 characters>)"}.
Reply toReply(const RawReply& raw);
JSON notJSON(int status, std::string_view text);
// The body as JSON text at the given indent, as toReply(raw).body.serialized(indent) would give
// it, but written from the received text without building the value.
std::string bodyText(const RawReply& raw, int indent);
// A GET whose failures are folded into the returned value; never throws.
JSON getJSON(const std::string& sock, std::string_view path);

// The request bytes that request() sends (exposed for tests).
std::string buildRequest(std::string_view method, std::string_view path, const JSON* body);
// Parses raw reply bytes; throws TransportError.
RawReply parseRawResponse(std::string bytes);
Reply parseResponse(std::string_view bytes);
// Decodes a chunked body; throws TransportError.
std::string dechunk(std::string_view body);

}  // namespace Transport
}  // namespace vorn
