// One request against many instances, and the query-string encoding of request paths.
#include <exception>

#include "core/text.h"
#include "instances/instances.h"
#include "instances/parallel.h"
#include "transport/transport.h"

namespace vorn {

namespace {

ByteSet byteSet(std::string_view bytes) {
  ByteSet set;
  for (char c : bytes)
    set.set(static_cast<unsigned char>(c));
  return set;
}

// The outcome of one POST of postEach.
struct FanoutRow {
  JSON row;
  bool failed = false;
  std::optional<std::string> detail;
};

FanoutRow postOne(const InstanceInfo& target, const std::string& path, const JSON& body) {
  FanoutRow out;
  try {
    Reply reply = Transport::request(target.socketPath, "POST", path, &body);
    if (!reply.ok()) {
      out.failed = true;
    } else if (const JSON* ok = reply.body.get("ok")) {
      out.failed = *ok == JSON(false);
    }
    if (out.failed) {
      if (const JSON* detail = reply.body.get("detail"); detail && detail->string()) {
        out.detail = *detail->string();
      }
    }
    // The body moves into the row: a large reply is held once.
    JSON::Object row;
    row.reserve(3);
    row.emplace_back("id", JSON(target.id));
    row.emplace_back("status", JSON(reply.status));
    row.emplace_back("body", std::move(reply.body));
    out.row = JSON(std::move(row));
  } catch (const TransportError& e) {
    // Status 0 marks a target that gave no reply at all.
    out.row = JSON::object({{"id", JSON(target.id)},
                            {"status", JSON(0)},
                            {"body", JSON::object({{"error", JSON(e.description)}})}});
    out.failed = true;
  }
  return out;
}

// One row of readEach's results at its place in the printed {"results": [...]}, the body written
// straight from the received text: a large reply (a whole file tree) is never held as a value.
void writeReadRow(BlockWriter& out, const std::string& id, const RawReply& reply) {
  std::string& text = out.text();
  text += "{\n      \"id\": ";
  JSON::appendQuoted(text, id);
  text += reply.ok() ? ",\n      \"ok\": true"
                                                     : ",\n      \"ok\": false";
  text += ",\n      \"body\": ";
  Transport::writeBody(reply, 2, 3, out);
  text += "\n    }";
}

}  // namespace

const ByteSet& componentSafe() {
  static const ByteSet set =
      byteSet("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.!~*'()");
  return set;
}

const ByteSet& formSafe() {
  static const ByteSet set =
      byteSet("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.*");
  return set;
}

std::string percentEncode(std::string_view text, const ByteSet& safe, bool spaceAsPlus) {
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    unsigned char byte = static_cast<unsigned char>(c);
    if (safe.test(byte)) {
      out.push_back(c);
    } else if (spaceAsPlus && byte == ' ') {
      out.push_back('+');
    } else {
      out.push_back('%');
      out.push_back(hex[byte >> 4]);
      out.push_back(hex[byte & 0x0F]);
    }
  }
  return out;
}

std::string searchParams(const std::vector<std::pair<std::string, std::string>>& pairs) {
  std::string out;
  for (size_t i = 0; i < pairs.size(); ++i) {
    if (i) out.push_back('&');
    out += percentEncode(pairs[i].first, formSafe(), true);
    out.push_back('=');
    out += percentEncode(pairs[i].second, formSafe(), true);
  }
  return out;
}

void Instances::postEach(const std::vector<InstanceInfo>& targets, const std::string& path,
                         const JSON& body, const std::string& label, bool json) const {
  FanoutWait waiting(ctx.status, targets);
  std::vector<FanoutRow> rows = parallelMap(targets, [&](const InstanceInfo& target) {
    FanoutRow row = postOne(target, path, body);
    waiting.answered(static_cast<size_t>(&target - targets.data()));
    return row;
  });

  bool single = rows.size() == 1 && !json;
  if (single) {
    // Printed where it stands (a conditional between it and a null would copy it).
    const JSON null;
    const JSON* replyBody = rows[0].row.get("body");
    (replyBody ? *replyBody : null).printTo(ctx.writeOut);
    if (rows[0].failed && rows[0].detail) {
      throw CliError{"vorn " + label + ": " + *rows[0].detail};
    }
  } else {
    // {"results": [rows]}, each row written where it stands rather than copied into the value.
    BlockWriter out(ctx.writeOut);
    std::string& text = out.text();
    text += rows.empty() ? "{\n  \"results\": []" : "{\n  \"results\": [";
    for (size_t i = 0; i < rows.size(); ++i) {
      text += i ? ",\n    " : "\n    ";
      rows[i].row.writeTo(out, 2, 2);
    }
    text += rows.empty() ? "\n}\n" : "\n  ]\n}\n";
    out.flush();
  }

  size_t failed = 0;
  std::string details;
  for (const auto& row : rows) {
    if (!row.failed) continue;
    ++failed;
    if (!single && row.detail) {
      const JSON* id = row.row.get("id");
      std::optional<std::string_view> idText = id ? id->string() : std::nullopt;
      details += "vorn " + label + " [" + std::string(idText ? *idText : "?") +
                 "]: " + *row.detail + "\n";
    }
  }
  if (failed == 0) return;
  if (!details.empty()) ctx.writeErr(visibleControls(details));
  throw CliError{"vorn " + label + ": " + std::to_string(failed) + " target(s) failed"};
}

void Instances::readEach(const std::string& method, const std::string& path, const JSON* body,
                         const Flags& flags, const std::string& label) const {
  std::vector<InstanceInfo> targets;
  if (hasSelector(flags)) {
    targets = resolve(flags, false, true);
  } else if (std::optional<InstanceInfo> mine = own()) {
    targets = {*mine};
  } else {
    targets = scan(false).live;
  }
  if (targets.empty()) throw CliError{"vorn " + label + ": no running instances"};

  if (targets.size() == 1 && !flags.json) {
    RawReply reply;
    try {
      Waiting waiting(ctx.status, answerWait(waitingForAnswer(targets[0])));
      reply = Transport::exchange(targets[0].socketPath, method, path, body);
    } catch (const TransportError& e) {
      throw CliError{e.description};
    }
    Transport::printBody(reply, ctx.writeOut);
    // The body printed above already says what went wrong.
    if (!reply.ok()) throw CliError{"", 1};
    return;
  }

  // {"results": [rows]}, written row by row as the replies come, so that one reply at a time is
  // held. Always a success: each row carries its own outcome.
  BlockWriter out(ctx.writeOut);
  FanoutWait waiting(ctx.status, targets);
  out.text() += "{\n  \"results\": [";
  for (size_t i = 0; i < targets.size(); ++i) {
    out.text() += i ? ",\n    " : "\n    ";
    try {
      RawReply reply = Transport::exchange(targets[i].socketPath, method, path, body);
      writeReadRow(out, targets[i].id, reply);
    } catch (const TransportError& e) {
      JSON::object(
          {{"id", JSON(targets[i].id)}, {"ok", JSON(false)}, {"error", JSON(e.description)}})
          .write(out.text(), 2, 2);
    }
    waiting.answered(i);
  }
  out.text() += "\n  ]\n}\n";
  out.flush();
}

}  // namespace vorn
