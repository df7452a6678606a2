#include "transport/transport.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "transport/deadline.h"
#include "transport/unique_fd.h"

namespace vorn {

namespace {

// The socket address holds at most this many path bytes plus a terminating zero
// (the smallest sun_path among the platforms we run on is 104 bytes).
constexpr size_t maxSocketPathBytes = 103;
constexpr size_t readChunkBytes = 65536;
constexpr size_t errorExcerptChars = 120;
// A reply announcing more than this is received in growing pieces rather than trusted.
constexpr uint64_t maxPresizeBytes = uint64_t{256} << 20;

std::string systemError(std::string_view prefix, int err) {
  std::string out(prefix);
  out += std::strerror(err);
  return out;
}

// A socket whose writes never raise SIGPIPE and that does not leak into programs we exec.
// It does not block: every wait is a poll() that the exchange's deadline bounds.
int openSocket() {
#if defined(SOCK_CLOEXEC) && defined(SOCK_NONBLOCK)
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
#else
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd >= 0) {
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  }
#endif
  if (fd < 0) throw TransportError{systemError("socket: ", errno)};
#ifdef SO_NOSIGPIPE
  int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  return fd;
}

bool wouldBlock(int err) {
  return err == EAGAIN || err == EWOULDBLOCK;
}

// Waits until the socket is ready for `events` or the deadline passes; a poll interrupted by
// a signal is repeated with the time that is left.
void awaitReady(int fd, short events, const Deadline& deadline, std::string_view failure) {
  pollfd p{fd, events, 0};
  while (true) {
    int ready = ::poll(&p, 1, deadline.pollMs());
    if (ready > 0) return;
    if (ready < 0 && errno != EINTR) throw TransportError{systemError(failure, errno)};
  }
}

void connectUnix(int fd, const std::string& sock, const Deadline& deadline) {
  if (sock.size() > maxSocketPathBytes) {
    throw TransportError{"socket path too long: " + sock};
  }
  sockaddr_un addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, sock.data(), sock.size());
  auto attempt = [&] {
    return ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ? 0 : errno;
  };
  int err = attempt();
  // A full listen queue (EAGAIN on Linux) leaves the socket unconnected. A blocking connect
  // would wait for room; this one tries again after a growing pause, within the deadline.
  for (int pauseMs = 1; wouldBlock(err); pauseMs = std::min(pauseMs * 2, 50)) {
    int left = deadline.pollMs();
    ::poll(nullptr, 0, left < 0 ? pauseMs : std::min(pauseMs, left));
    err = attempt();
  }
  if (err == EINPROGRESS || err == EINTR) {
    // The connection is being made in the background; wait for its result.
    awaitReady(fd, POLLOUT, deadline, "connect " + sock + ": ");
    socklen_t len = sizeof err;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
  }
  if (err != 0) throw TransportError{"connect " + sock + ": " + std::strerror(err)};
}

void writeAll(int fd, std::string_view bytes, const Deadline& deadline) {
#ifdef MSG_NOSIGNAL
  constexpr int flags = MSG_NOSIGNAL;
#else
  constexpr int flags = 0;
#endif
  size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, flags);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (wouldBlock(errno)) {
        awaitReady(fd, POLLOUT, deadline, "write: ");
        continue;
      }
      throw TransportError{systemError("write: ", errno)};
    }
    sent += static_cast<size_t>(n);
  }
}

size_t indexOf(std::string_view haystack, std::string_view needle, size_t from = 0) {
  return haystack.find(needle, from);
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && isSpace(s.front()))
    s.remove_prefix(1);
  while (!s.empty() && isSpace(s.back()))
    s.remove_suffix(1);
  return s;
}

std::string lowered(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// A non-negative decimal integer made of ASCII digits only; nothing on overflow.
std::optional<uint64_t> parseUnsigned(std::string_view s, int base) {
  if (s.empty()) return std::nullopt;
  uint64_t value = 0;
  for (char c : s) {
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      return std::nullopt;
    }
    if (value > (UINT64_MAX - static_cast<uint64_t>(digit)) / static_cast<uint64_t>(base)) {
      return std::nullopt;
    }
    value = value * static_cast<uint64_t>(base) + static_cast<uint64_t>(digit);
  }
  return value;
}

// The first `limit` characters (Unicode scalars) of valid UTF-8 text.
std::string_view firstCharacters(std::string_view text, size_t limit) {
  size_t count = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
      if (count == limit) return text.substr(0, i);
      ++count;
    }
  }
  return text;
}

// What the header of a reply says about its body.
struct Head {
  int status = 0;
  size_t bodyStart = 0;  // the first byte after the blank line
  bool chunked = false;
  std::optional<uint64_t> contentLength;  // when it is a plain decimal number
};

// Reads the status line and the header fields; throws TransportError when there is no blank
// line or no numeric status.
Head parseHead(std::string_view bytes) {
  size_t headerEnd = indexOf(bytes, "\r\n\r\n");
  if (headerEnd == std::string_view::npos) throw TransportError{"malformed HTTP reply"};
  std::string_view header = bytes.substr(0, headerEnd);
  Head head;
  head.bodyStart = headerEnd + 4;

  size_t lineEnd = indexOf(header, "\r\n");
  std::string_view statusLine = header.substr(0, lineEnd);
  std::string_view fields =
      lineEnd == std::string_view::npos ? std::string_view() : header.substr(lineEnd + 2);

  // The status is the second space-separated field; the version before it is not checked.
  std::string_view rest = statusLine;
  size_t space = rest.find(' ');
  if (space == std::string_view::npos) throw TransportError{"malformed HTTP status line"};
  rest = rest.substr(space + 1);
  while (!rest.empty() && rest.front() == ' ')
    rest.remove_prefix(1);
  std::string_view code = rest.substr(0, rest.find(' '));
  auto status = parseUnsigned(code, 10);
  if (!status || *status > 999999999) throw TransportError{"malformed HTTP status line"};
  head.status = static_cast<int>(*status);

  // Names compare without regard to case; of repeated fields the last one counts.
  while (!fields.empty()) {
    size_t end = indexOf(fields, "\r\n");
    std::string_view line = fields.substr(0, end);
    fields = end == std::string_view::npos ? std::string_view() : fields.substr(end + 2);
    size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    std::string name = lowered(trim(line.substr(0, colon)));
    std::string_view value = trim(line.substr(colon + 1));
    if (name == "transfer-encoding") {
      head.chunked = lowered(value) == "chunked";
    } else if (name == "content-length") {
      head.contentLength = parseUnsigned(value, 10);
    }
  }
  return head;
}

// The whole size a reply announces (header and body), once its header has arrived.
std::optional<size_t> announcedSize(std::string_view received) {
  if (indexOf(received, "\r\n\r\n") == std::string_view::npos) return std::nullopt;
  try {
    Head head = parseHead(received);
    if (head.chunked || !head.contentLength || *head.contentLength > maxPresizeBytes) return 0;
    return head.bodyStart + static_cast<size_t>(*head.contentLength);
  } catch (const TransportError&) {
    return 0;
  }
}

// Everything the peer sends until it closes, received straight into the result's spare room.
// Once the header has told the body's length the room is made exactly that large, so a big
// reply is neither copied nor over-allocated; otherwise the room doubles when it runs out.
std::string readAll(int fd, const Deadline& deadline) {
  std::string out(readChunkBytes, '\0');
  size_t used = 0;
  bool presized = false;
  while (true) {
    if (used == out.size()) out.resize(out.size() * 2);
    ssize_t n = ::recv(fd, out.data() + used, out.size() - used, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (wouldBlock(errno)) {
        awaitReady(fd, POLLIN, deadline, "read: ");
        continue;
      }
      throw TransportError{systemError("read: ", errno)};
    }
    if (n == 0) break;
    used += static_cast<size_t>(n);
    if (!presized) {
      if (auto size = announcedSize(std::string_view(out.data(), used))) {
        presized = true;
        // One spare byte so that the closing receive of 0 bytes needs no growth.
        if (*size + 1 > out.size()) out.resize(*size + 1);
      }
    }
  }
  out.resize(used);
  return out;
}

}  // namespace

namespace Transport {

std::string buildRequest(std::string_view method, std::string_view path, const JSON* body) {
  std::string payload;
  if (body != nullptr) payload = body->serialized(0);
  std::string out;
  out.reserve(method.size() + path.size() + payload.size() + 160);
  out.append(method);
  out.push_back(' ');
  out.append(path);
  out.append(" HTTP/1.1\r\nHost: unix\r\nConnection: close\r\nAccept: */*\r\n");
  if (body != nullptr) out.append("Content-Type: application/json\r\n");
  if (body != nullptr || method == "POST") {
    out.append("Content-Length: ");
    out.append(std::to_string(payload.size()));
    out.append("\r\n");
  }
  out.append("\r\n");
  out.append(payload);
  return out;
}

std::string dechunk(std::string_view body) {
  std::string out;
  out.reserve(body.size());
  size_t pos = 0;
  while (pos < body.size()) {
    size_t lineEnd = indexOf(body, "\r\n", pos);
    // Data that stops without the final zero-size chunk is accepted as it stands.
    if (lineEnd == std::string_view::npos) break;
    std::string_view sizeText = body.substr(pos, lineEnd - pos);
    size_t semicolon = sizeText.find(';');
    if (semicolon != std::string_view::npos) sizeText = sizeText.substr(0, semicolon);
    auto size = parseUnsigned(trim(sizeText), 16);
    if (!size) throw TransportError{"malformed chunk size"};
    if (*size == 0) break;
    size_t dataStart = lineEnd + 2;
    if (body.size() - dataStart < *size) throw TransportError{"truncated chunk"};
    out.append(body.substr(dataStart, *size));
    pos = dataStart + *size + 2;
  }
  return out;
}

RawReply parseRawResponse(std::string bytes) {
  Head head = parseHead(bytes);
  std::string body;
  if (head.chunked) {
    body = dechunk(std::string_view(bytes).substr(head.bodyStart));
    bytes = std::string();
  } else {
    // The body is cut out of the received bytes in place. Extra bytes are ignored; fewer than
    // announced are taken as they came.
    body = std::move(bytes);
    body.erase(0, head.bodyStart);
    if (head.contentLength && *head.contentLength < body.size()) {
      body.resize(static_cast<size_t>(*head.contentLength));
    }
  }
  if (!isValidUTF8(body)) body = toValidUTF8(body);
  return RawReply{head.status, std::move(body)};
}

JSON notJSON(int status, std::string_view text) {
  std::string message = "HTTP " + std::to_string(status) + ": not JSON (";
  message.append(firstCharacters(text, errorExcerptChars));
  message.push_back(')');
  return JSON::object({{"error", JSON(std::move(message))}});
}

Reply toReply(const RawReply& raw) {
  Reply reply;
  reply.status = raw.status;
  try {
    reply.body = JSON::parse(raw.body);
  } catch (const JSONParseError&) {
    reply.body = notJSON(raw.status, raw.body);
  }
  return reply;
}

std::string bodyText(const RawReply& raw, int indent) {
  try {
    return JSON::reformat(raw.body, indent);
  } catch (const JSONParseError&) {
    return notJSON(raw.status, raw.body).serialized(indent);
  }
}

Reply parseResponse(std::string_view bytes) {
  return toReply(parseRawResponse(std::string(bytes)));
}

RawReply exchange(const std::string& sock, std::string_view method, std::string_view path,
                  const JSON* body) {
  // One deadline for connect, write and read together (none unless VORN_TIMEOUT set one).
  Deadline deadline(timeout());
  std::string bytes;
  {
    UniqueFd fd(openSocket());
    connectUnix(fd.get(), sock, deadline);
    writeAll(fd.get(), buildRequest(method, path, body), deadline);
    bytes = readAll(fd.get(), deadline);
  }
  return parseRawResponse(std::move(bytes));
}

Reply request(const std::string& sock, std::string_view method, std::string_view path,
              const JSON* body) {
  return toReply(exchange(sock, method, path, body));
}

JSON getJSON(const std::string& sock, std::string_view path) {
  try {
    Reply reply = request(sock, "GET", path);
    if (reply.ok()) return std::move(reply.body);
    if (auto message = reply.body.error()) return JSON::object({{"error", JSON(*message)}});
    return JSON::object({{"error", JSON("HTTP " + std::to_string(reply.status))}});
  } catch (const TransportError& e) {
    return JSON::object({{"error", JSON(e.description)}});
  } catch (const std::exception& e) {
    return JSON::object({{"error", JSON(std::string(e.what()))}});
  }
}

}  // namespace Transport
}  // namespace vorn
