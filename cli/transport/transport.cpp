#include "transport/transport.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "paths/trust.h"
#include "transport/deadline.h"
#include "transport/listen_queue.h"
#include "transport/peer.h"
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
  // A full listen queue leaves the socket unconnected. A blocking connect would wait for room;
  // this one tries again after a growing pause, within the deadline.
  int err = Transport::connectPatiently(
      attempt, [&] { return Transport::refusalMayBeFullQueue(sock); }, deadline);
  if (err == EINPROGRESS || err == EINTR) {
    // The connection is being made in the background; wait for its result.
    awaitReady(fd, POLLOUT, deadline, "connect " + sock + ": ");
    socklen_t len = sizeof err;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
  }
  if (err != 0) throw TransportError{"connect " + sock + ": " + std::strerror(err)};
}

// Nothing is sent to a server that someone else runs: the socket and the process at the other
// end must be the user's (or root's), and, when the caller knows it, that exact process.
void believeServer(int fd, const std::string& sock, std::optional<pid_t> serverPid) {
  uid_t self = Trust::self();
  struct stat st;
  if (::stat(sock.c_str(), &st) == 0) {
    // Whoever bound the socket owns its file: the server is theirs.
    PeerCredentials binder{st.st_uid, std::nullopt};
    if (std::optional<std::string> error = Peer::strangerError(sock, binder, self)) {
      throw TransportError{*error};
    }
  }
  std::optional<PeerCredentials> peer = Peer::credentials(fd);
  if (std::optional<std::string> error = Peer::strangerError(sock, peer, self)) {
    throw TransportError{*error};
  }
  if (serverPid && peer->pid != serverPid) {
    throw TransportError{"connect " + sock + ": the server is " +
                         (peer->pid ? "pid " + std::to_string(*peer->pid) : "a process") +
                         ", not pid " + std::to_string(*serverPid)};
  }
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

// The whole size a reply announces (header and body), once its header has arrived; 0 when it
// announces none that can be trusted. `searched` is how far earlier calls found no blank line:
// a header that arrives in many pieces (or never ends) is searched once, not once per piece.
std::optional<size_t> announcedSize(std::string_view received, size_t& searched) {
  if (indexOf(received, "\r\n\r\n", searched < 3 ? 0 : searched - 3) == std::string_view::npos) {
    searched = received.size();
    return std::nullopt;
  }
  try {
    Head head = parseHead(received);
    if (head.chunked || !head.contentLength || *head.contentLength > maxPresizeBytes) return 0;
    return head.bodyStart + static_cast<size_t>(*head.contentLength);
  } catch (const TransportError&) {
    return 0;
  }
}

TransportError tooLarge(size_t maxBytes) {
  constexpr size_t mebibyte = size_t{1} << 20;
  std::string limit = maxBytes % mebibyte == 0 ? std::to_string(maxBytes / mebibyte) + " MiB"
                                               : std::to_string(maxBytes) + " bytes";
  return TransportError{"reply too large: over " + limit};
}

// Everything the peer sends until it closes, received straight into the spare room of one
// block. Once the header has told the body's length the block is made exactly that large;
// otherwise it doubles when full, which realloc does without copying a large block. A reply of
// more than maxBytes is not read further.
ReplyBytes readAll(int fd, size_t maxBytes, const Deadline& deadline) {
  ReplyBytes out;
  out.reserve(readChunkBytes);
  bool presized = false;
  size_t headerSearched = 0;
  while (true) {
    // Never more room than the limit and the one byte that tells it was passed.
    if (out.spareSize() == 0) out.reserve(std::min(2 * out.size(), maxBytes + 1));
    ssize_t n = ::recv(fd, out.spare(), out.spareSize(), 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (wouldBlock(errno)) {
        awaitReady(fd, POLLIN, deadline, "read: ");
        continue;
      }
      throw TransportError{systemError("read: ", errno)};
    }
    if (n == 0) break;
    out.commit(static_cast<size_t>(n));
    if (out.size() > maxBytes) throw tooLarge(maxBytes);
    if (!presized) {
      if (auto size = announcedSize(out.view(), headerSearched)) {
        presized = true;
        // One spare byte so that the closing receive of 0 bytes needs no growth.
        if (*size > 0) out.reserve(std::min(*size, maxBytes) + 1);
      }
    }
  }
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

size_t dechunkInPlace(char* body, size_t size) {
  std::string_view in(body, size);
  size_t out = 0;
  size_t pos = 0;
  while (pos < size) {
    size_t lineEnd = indexOf(in, "\r\n", pos);
    // Data that stops without the final zero-size chunk is accepted as it stands.
    if (lineEnd == std::string_view::npos) break;
    std::string_view sizeText = in.substr(pos, lineEnd - pos);
    size_t semicolon = sizeText.find(';');
    if (semicolon != std::string_view::npos) sizeText = sizeText.substr(0, semicolon);
    auto chunk = parseUnsigned(trim(sizeText), 16);
    if (!chunk) throw TransportError{"malformed chunk size"};
    if (*chunk == 0) break;
    size_t dataStart = lineEnd + 2;
    if (size - dataStart < *chunk) throw TransportError{"truncated chunk"};
    // Each chunk's data moves towards the front, over size lines already read.
    std::memmove(body + out, body + dataStart, static_cast<size_t>(*chunk));
    out += static_cast<size_t>(*chunk);
    pos = dataStart + static_cast<size_t>(*chunk) + 2;
  }
  return out;
}

std::string dechunk(std::string_view body) {
  std::string out(body);
  out.resize(dechunkInPlace(out.data(), out.size()));
  return out;
}

RawReply parseRawResponse(ReplyBytes bytes) {
  Head head = parseHead(bytes);
  // The body is cut out of the received bytes where it stands.
  bytes.dropFront(head.bodyStart);
  if (head.chunked) {
    bytes.truncate(dechunkInPlace(bytes.data(), bytes.size()));
  } else if (head.contentLength && *head.contentLength < bytes.size()) {
    // Extra bytes are ignored; fewer than announced are taken as they came.
    bytes.truncate(static_cast<size_t>(*head.contentLength));
  }
  if (!isValidUTF8(bytes)) bytes = ReplyBytes(toValidUTF8(bytes));
  return RawReply{head.status, std::move(bytes)};
}

RawReply parseRawResponse(std::string_view bytes) {
  return parseRawResponse(ReplyBytes(bytes));
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
    reply.body = JSON::parse(raw.body, TextBytes::validUTF8);
  } catch (const JSONParseError&) {
    reply.body = notJSON(raw.status, raw.body);
  }
  return reply;
}

void writeBody(const RawReply& raw, int indent, int depth, BlockWriter& out) {
  try {
    JSON::reformatTo(raw.body, indent, depth, out, TextBytes::validUTF8);
  } catch (const JSONParseError&) {
    notJSON(raw.status, raw.body).write(out.text(), indent, depth);
  }
}

void printBody(const RawReply& raw, const std::function<void(std::string_view)>& write) {
  BlockWriter out(write);
  writeBody(raw, 2, 0, out);
  out.text() += '\n';
  out.flush();
}

Reply parseResponse(std::string_view bytes) {
  return toReply(parseRawResponse(bytes));
}

RawReply exchange(const std::string& sock, std::string_view method, std::string_view path,
                  const JSON* body, size_t maxBytes) {
  return exchangeWith(sock, method, path, body, maxBytes, std::nullopt);
}

RawReply exchangeWith(const std::string& sock, std::string_view method, std::string_view path,
                      const JSON* body, size_t maxBytes, std::optional<pid_t> serverPid) {
  // One deadline for connect, write and read together (none unless VORN_TIMEOUT set one).
  Deadline deadline(timeout());
  ReplyBytes bytes;
  {
    UniqueFd fd(openSocket());
    connectUnix(fd.get(), sock, deadline);
    believeServer(fd.get(), sock, serverPid);
    writeAll(fd.get(), buildRequest(method, path, body), deadline);
    bytes = readAll(fd.get(), maxBytes, deadline);
  }
  return parseRawResponse(std::move(bytes));
}

Reply request(const std::string& sock, std::string_view method, std::string_view path,
              const JSON* body, size_t maxBytes) {
  return toReply(exchange(sock, method, path, body, maxBytes));
}

Reply requestFrom(pid_t serverPid, const std::string& sock, std::string_view method,
                  std::string_view path) {
  return toReply(exchangeWith(sock, method, path, nullptr, recordReplyBytes, serverPid));
}

JSON getJSON(const std::string& sock, std::string_view path, size_t maxBytes) {
  try {
    Reply reply = request(sock, "GET", path, nullptr, maxBytes);
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
