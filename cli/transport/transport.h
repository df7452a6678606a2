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

struct TransportError {
  std::string description;
};

namespace Transport {

// Throws TransportError.
Reply request(const std::string& sock, std::string_view method, std::string_view path,
              const JSON* body = nullptr);
// A GET whose failures are folded into the returned value; never throws.
JSON getJSON(const std::string& sock, std::string_view path);

// The request bytes that request() sends (exposed for tests).
std::string buildRequest(std::string_view method, std::string_view path, const JSON* body);
// Parses raw reply bytes; throws TransportError.
Reply parseResponse(std::string_view bytes);
// Decodes a chunked body; throws TransportError.
std::string dechunk(std::string_view body);

}  // namespace Transport
}  // namespace vorn
