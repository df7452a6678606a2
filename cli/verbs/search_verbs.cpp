// search run: the instance searches; the CLI builds the query and renders the reply.
#include "verbs/search_verbs.h"

#include <array>
#include <string_view>

#include "core/cli_error.h"
#include "instances/instances.h"
#include "transport/transport.h"
#include "verbs/verbs.h"

namespace vorn {

namespace {

struct SwitchKey {
  std::string_view option;
  std::string_view key;
};

// Switches are sent as "1" whenever present.
constexpr std::array<SwitchKey, 3> switchKeys = {{
    {"--regex", "regex"},
    {"--case", "case"},
    {"--word", "word"},
}};

constexpr std::array<SwitchKey, 3> valueKeys = {{
    {"--include", "include"},
    {"--exclude", "exclude"},
    {"--max", "max"},
}};

}  // namespace

QueryPairs searchPairs(const Flags& flags) {
  QueryPairs pairs = {{"q", flags.args.front()}};
  for (const SwitchKey& row : switchKeys) {
    if (flags.has(std::string(row.option))) pairs.emplace_back(row.key, "1");
  }
  // Passed through as typed: the instance splits globs and parses the cap.
  for (const SwitchKey& row : valueKeys) {
    if (const std::string* value = flags.value(std::string(row.option))) {
      pairs.emplace_back(row.key, *value);
    }
  }
  return pairs;
}

std::string searchLines(const JSON& body) {
  std::string out;
  const JSON* files = body.get("files");
  if (!files) return out;
  for (const JSON& file : files->list()) {
    const JSON* matches = file.get("matches");
    if (!matches || matches->list().empty()) continue;
    // Rendered once per file; every match line of the file starts with it.
    const std::string path = renderValue(file.get("path"));
    for (const JSON& match : matches->list()) {
      out += path;
      out += ':';
      out += renderValue(match.get("line"));
      out += ':';
      out += renderValue(match.get("col"));
      out += ": ";
      out += renderValue(match.get("preview"));
      out += '\n';
    }
  }
  return out;
}

std::string searchSummary(const JSON& body) {
  std::string out = renderValue(body.get("matchCount")) + " matches in " +
                    renderValue(body.get("fileCount")) + " files (" +
                    renderValue(body.get("engine")) + ")";
  if (const JSON* limitHit = body.get("limitHit"); limitHit && limitHit->isTrue()) {
    out += " \u2014 limit hit, results truncated";
  }
  out += '\n';
  return out;
}

namespace {

void searchRun(const Flags& flags, Instances& instances) {
  if (flags.args.empty()) throw usageError("vorn search run: missing pattern");
  std::string path = "/search?" + searchParams(searchPairs(flags));
  InstanceInfo target = instances.one(flags, "search run");

  Reply reply;
  try {
    reply = Transport::request(target.socketPath, "GET", path);
  } catch (const TransportError& e) {
    throw CliError{"vorn search run: " + e.description};
  }

  if (flags.json) {
    instances.ctx.writeOut(reply.body.serialized(2) + "\n");
  } else {
    // One write for the whole listing, however many matches there are.
    std::string lines = searchLines(reply.body);
    if (!lines.empty()) instances.ctx.writeOut(lines);
    if (reply.ok()) instances.ctx.writeErr(searchSummary(reply.body));
  }

  if (!reply.ok()) {
    std::optional<std::string> error = reply.body.error();
    throw CliError{"vorn search run: " + (error ? *error : std::to_string(reply.status))};
  }
  // Nothing matched: the exit status says so, without further text.
  std::optional<double> count =
      reply.body.get("matchCount") ? reply.body.get("matchCount")->number() : std::nullopt;
  if (!count || *count == 0) throw CliError{"", 1};
}

}  // namespace

VerbTable searchVerbs() {
  return {{"run", searchRun}};
}

}  // namespace vorn
