// The `instance` noun: show and manage the running instances of the runtime directory.
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/text.h"
#include "instances/parallel.h"
#include "transport/transport.h"
#include "verbs/verbs.h"

namespace vorn {

// The pure pieces, kept apart so that the unit tests can reach them (they declare them).
namespace InstanceVerbs {

// Milliseconds since 1970 as an ISO 8601 UTC timestamp with milliseconds
// ("2026-11-21T20:51:15.123Z"). Years outside 0..9999 take the expanded six-digit form with a
// sign; a value that is not finite or lies beyond ±8.64e15 ms (±100,000,000 days) has no
// timestamp.
std::optional<std::string> isoTimestamp(double ms) {
  if (!std::isfinite(ms) || std::fabs(ms) > 8.64e15) return std::nullopt;
  int64_t total = static_cast<int64_t>(std::floor(ms));
  int64_t days = total / 86400000;
  int64_t rest = total % 86400000;
  if (rest < 0) {
    rest += 86400000;
    days -= 1;
  }
  // Civil date from a day count (proleptic Gregorian calendar, 400-year eras).
  int64_t z = days + 719468;
  int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  int64_t doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t year = yoe + era * 400;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  int64_t day = doy - (153 * mp + 2) / 5 + 1;
  int64_t month = mp < 10 ? mp + 3 : mp - 9;
  if (month <= 2) year += 1;

  char yearText[16];
  if (year >= 0 && year <= 9999) {
    std::snprintf(yearText, sizeof yearText, "%04" PRId64, year);
  } else {
    std::snprintf(yearText, sizeof yearText, "%c%06" PRId64, year < 0 ? '-' : '+',
                  year < 0 ? -year : year);
  }
  char text[64];
  std::snprintf(
      text, sizeof text,
      "%s-%02" PRId64 "-%02" PRId64 "T%02" PRId64 ":%02" PRId64 ":%02" PRId64 ".%03" PRId64 "Z",
      yearText, month, day, rest / 3600000, rest / 60000 % 60, rest / 1000 % 60, rest % 1000);
  return std::string(text);
}

// {"count": entries of the reply's "diagnostics" array, "bySource": entries per "source"
// string, in order of first appearance}. Entries without a string source count only in "count".
JSON diagnosticsSummary(const JSON& reply) {
  const JSON* list = reply.get("diagnostics");
  const JSON::Array empty;
  const JSON::Array& entries = list ? list->list() : empty;
  JSON::Object bySource;
  for (const JSON& entry : entries) {
    const JSON* source = entry.get("source");
    if (!source || !source->string()) continue;
    std::string_view name = *source->string();
    bool found = false;
    for (auto& [key, count] : bySource) {
      if (key == name) {
        count = JSON(*count.number() + 1);
        found = true;
        break;
      }
    }
    if (!found) bySource.emplace_back(name, JSON(1));
  }
  return JSON::object({{"count", JSON(entries.size())}, {"bySource", JSON(std::move(bySource))}});
}

// One instance as `instance list -o json` shows it.
JSON listEntry(const InstanceInfo& instance) {
  return JSON::object({
      {"id", JSON(instance.id)},
      {"pid", JSON(instance.pid)},
      {"sock", JSON(instance.socketPath)},
      {"mode", JSON(instance.mode.value_or("app"))},
      {"workspace",
       JSON::object({{"root", JSON(instance.workspace)}, {"name", JSON(instance.workspaceName)}})},
      {"health", JSON::object({{"ok", JSON(true)}, {"transport", JSON(instance.transport)}})},
  });
}

JSON staleEntries(const std::vector<StaleEntry>& entries) {
  JSON::Array out;
  out.reserve(entries.size());
  for (const auto& entry : entries) {
    out.push_back(JSON::object(
        {{"pid", JSON(entry.pid)}, {"dir", JSON(entry.dir)}, {"reason", JSON(entry.reason)}}));
  }
  return JSON(std::move(out));
}

// The whole `instance list` output for one scan: what goes to stdout and to stderr.
struct ListOutput {
  std::string out;
  std::string err;
};

ListOutput listOutput(const Scan& scan, bool quiet, bool json) {
  ListOutput result;
  if (json) {
    JSON::Array live;
    live.reserve(scan.live.size());
    for (const auto& instance : scan.live)
      live.push_back(listEntry(instance));
    result.out =
        JSON::object({{"instances", JSON(std::move(live))}, {"stale", staleEntries(scan.stale)}})
            .serialized(2) +
        "\n";
    return result;
  }
  if (!quiet) {
    for (const auto& entry : scan.removed) {
      result.err += "vorn: pruned " + entry.dir + " (" + entry.reason + ")\n";
    }
  }
  if (quiet) {
    for (const auto& instance : scan.live)
      result.out += instance.id + "\n";
    return result;
  }
  if (!scan.stale.empty()) {
    std::string list;
    for (const auto& entry : scan.stale) {
      if (!list.empty()) list += ", ";
      list += std::to_string(entry.pid) + " (" + entry.reason + ")";
    }
    result.err += "vorn: " + std::to_string(scan.stale.size()) +
                  " unreachable instance dir(s): " + list + " — run vorn instance prune\n";
  }
  result.out = scan.live.empty() ? "No running Vorn instances.\n" : instanceTable(scan.live) + "\n";
  return result;
}

// The whole `instance prune` output for one pruning scan.
std::string pruneOutput(const Scan& scan, bool json) {
  if (json) {
    JSON::Array live;
    live.reserve(scan.live.size());
    for (const auto& instance : scan.live)
      live.push_back(JSON(instance.id));
    return JSON::object({{"pruned", staleEntries(scan.removed)},
                         {"kept", staleEntries(scan.stale)},
                         {"live", JSON(std::move(live))}})
               .serialized(2) +
           "\n";
  }
  std::string out;
  for (const auto& entry : scan.removed) {
    out += "Pruned " + entry.dir + " (" + entry.reason + ")\n";
  }
  for (const auto& entry : scan.stale) {
    out += "Kept " + entry.dir + " (" + entry.reason + "; younger than " +
           std::to_string(staleAgeLimitSeconds) + "s or not ours)\n";
  }
  if (scan.removed.empty() && scan.stale.empty()) out += "Nothing to prune.\n";
  out += std::to_string(scan.live.size()) + " live instance(s).\n";
  return out;
}

// The inspect targets named by positional IDs, in argument order without repeats. An ID that
// matches no live instance, or (by prefix) several, fails the whole command before any
// instance is asked anything.
std::vector<InstanceInfo> inspectTargets(const std::vector<InstanceInfo>& live,
                                         const std::vector<std::string>& ids) {
  std::vector<InstanceInfo> targets;
  std::set<std::string> seen;
  for (const auto& id : ids) {
    std::vector<InstanceInfo> match = matchInstances(live, id, std::nullopt);
    if (match.empty()) throw CliError{"vorn instance inspect: no instance matches " + id};
    if (match.size() > 1) {
      throw ambiguous(
          "vorn instance inspect: " + std::to_string(match.size()) + " instances match " + id,
          match, "pass a longer ID (see vorn instance list)");
    }
    if (seen.insert(match[0].socketPath).second) {
      targets.push_back(match[0]);
    }
  }
  return targets;
}

// The detail object of one instance from its four replies.
JSON inspectEntry(const InstanceInfo& instance, double nowMs, JSON health, JSON workspace,
                  JSON language, const JSON& diagnostics) {
  std::optional<std::string> started = isoTimestamp(instance.startedAt);
  // Built pair by pair so that the replies move in: a list written in braces would copy them.
  JSON::Object entry;
  entry.reserve(11);
  entry.emplace_back("id", JSON(instance.id));
  entry.emplace_back("pid", JSON(instance.pid));
  entry.emplace_back("sock", JSON(instance.socketPath));
  entry.emplace_back("startedAt", started ? JSON(*started) : JSON());
  entry.emplace_back("uptimeMs", JSON(nowMs - instance.startedAt));
  entry.emplace_back("vornRoot", JSON(instance.vornRoot));
  entry.emplace_back("platform", JSON(instance.platform));
  entry.emplace_back("health", std::move(health));
  entry.emplace_back("workspace", std::move(workspace));
  entry.emplace_back("language", std::move(language));
  entry.emplace_back("diagnostics", diagnosticsSummary(diagnostics));
  return JSON(std::move(entry));
}

}  // namespace InstanceVerbs

namespace {

using namespace InstanceVerbs;

const char* const inspectPaths[] = {"/health", "/workspace", "/language/status", "/diagnostics"};
constexpr size_t inspectPathCount = 4;

double nowMilliseconds() {
  using namespace std::chrono;
  return static_cast<double>(
      duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

void list(const Flags& flags, Instances& instances) {
  Scan scan = instances.scan(flags.has("--prune"));
  ListOutput output = listOutput(scan, flags.has("--quiet"), flags.json);
  // Ids, paths and names come from the instances: shown, never interpreted by the terminal.
  if (!flags.json) {
    output.err = visibleControls(output.err);
    output.out = visibleControls(output.out);
  }
  if (!output.err.empty()) instances.ctx.writeErr(output.err);
  instances.ctx.writeOut(output.out);
}

void inspect(const Flags& flags, Instances& instances) {
  for (const auto& id : flags.args) {
    if (id.empty()) throw usageError("vorn instance inspect: an instance ID cannot be empty");
  }
  std::vector<InstanceInfo> live = instances.scan(false).live;
  if (live.empty()) throw CliError{"vorn instance inspect: no running instances"};

  std::vector<InstanceInfo> targets;
  if (!flags.args.empty()) {
    targets = inspectTargets(live, flags.args);
  } else if (hasSelector(flags)) {
    targets = instances.resolve(flags, false, true);
  } else {
    targets = live;
  }
  if (targets.empty()) throw CliError{"vorn instance inspect: no matching instances"};

  // Every request of every target at once: one job per (instance, endpoint).
  std::vector<std::pair<size_t, size_t>> jobs;
  jobs.reserve(targets.size() * inspectPathCount);
  for (size_t t = 0; t < targets.size(); ++t) {
    for (size_t p = 0; p < inspectPathCount; ++p)
      jobs.emplace_back(t, p);
  }
  std::vector<JSON> replies;
  {
    FanoutWait waiting(instances.ctx.status, targets);
    std::vector<std::atomic<size_t>> left(targets.size());
    for (auto& count : left)
      count = inspectPathCount;
    replies = parallelMap(jobs, [&](const std::pair<size_t, size_t>& job) {
      JSON reply = Transport::getJSON(targets[job.first].socketPath, inspectPaths[job.second]);
      if (--left[job.first] == 0) waiting.answered(job.first);
      return reply;
    });
  }

  double now = nowMilliseconds();
  JSON::Array entries;
  entries.reserve(targets.size());
  for (size_t t = 0; t < targets.size(); ++t) {
    JSON* r = &replies[t * inspectPathCount];
    entries.push_back(
        inspectEntry(targets[t], now, std::move(r[0]), std::move(r[1]), std::move(r[2]), r[3]));
  }
  JSON(std::move(entries)).printTo(instances.ctx.writeOut);
}

// The reply's "error" string, or the fallback.
std::string replyError(const Reply& reply, const std::string& fallback) {
  if (const JSON* error = reply.body.get("error"); error && error->string()) {
    return std::string(*error->string());
  }
  return fallback;
}

void focus(const Flags& flags, Instances& instances) {
  if (instances.scan(false).live.empty()) {
    throw CliError{"vorn instance focus: no running instances"};
  }
  std::vector<InstanceInfo> targets = instances.resolve(flags, true, true);
  if (targets.empty()) throw CliError{"vorn instance focus: no matching instances"};

  const JSON empty = JSON::object();
  size_t failed = 0;
  for (const auto& target : targets) {
    std::string problem;
    try {
      Waiting waiting(instances.ctx.status, answerWait(waitingForAnswer(target)));
      Reply reply = Transport::request(target.socketPath, "POST", "/focus", &empty);
      if (reply.ok()) {
        instances.ctx.writeOut(visibleControls("Focused instance " + target.id + "\n"));
        continue;
      }
      problem = replyError(reply, "focus failed (" + std::to_string(reply.status) + ")");
    } catch (const TransportError&) {
      problem = "focus failed (unreachable)";
    }
    ++failed;
    instances.ctx.writeErr(
        visibleControls("vorn instance focus [" + target.id + "]: " + problem + "\n"));
  }
  if (failed) {
    throw CliError{"vorn instance focus: " + std::to_string(failed) + " target(s) failed"};
  }
}

// How long quit waits for each instance to go away.
constexpr double quitWaitSeconds = 10;

void quit(const Flags& flags, Instances& instances) {
  // Quitting is never aimed at an implicit instance.
  if (!hasSelector(flags)) {
    throw CliError{
        "vorn instance quit: pass -i ID, --pid N, -a, or --sock (see vorn instance list)"};
  }
  std::vector<InstanceInfo> targets = instances.resolve(flags, true, true);
  if (targets.empty()) throw CliError{"vorn instance quit: no matching instances"};

  const JSON empty = JSON::object();
  size_t failed = 0;
  for (const auto& target : targets) {
    std::string problem;
    try {
      Reply reply = [&] {
        Waiting waiting(instances.ctx.status, answerWait(waitingForAnswer(target)));
        return Transport::request(target.socketPath, "POST", "/quit", &empty);
      }();
      if (reply.ok()) {
        if (instances.waitForExit(target, quitWaitSeconds)) {
          instances.ctx.writeOut(visibleControls("Quit instance " + target.id + "\n"));
          continue;
        }
        problem = "still running after 10s";
      } else {
        problem = replyError(reply, "quit failed (" + std::to_string(reply.status) + ")");
      }
    } catch (const TransportError& e) {
      problem = e.description;
    }
    ++failed;
    instances.ctx.writeErr(
        visibleControls("vorn instance quit [" + target.id + "]: " + problem + "\n"));
  }
  if (failed) {
    throw CliError{"vorn instance quit: " + std::to_string(failed) + " target(s) failed"};
  }
}

void prune(const Flags& flags, Instances& instances) {
  std::string out = pruneOutput(instances.scan(true), flags.json);
  instances.ctx.writeOut(flags.json ? out : visibleControls(out));
}

void health(const Flags& flags, Instances& instances) {
  instances.readEach("GET", "/health", nullptr, flags, "instance health");
}

}  // namespace

VerbTable instanceVerbs() {
  return {
      {"list", list}, {"inspect", inspect}, {"focus", focus},
      {"quit", quit}, {"prune", prune},     {"health", health},
  };
}

}  // namespace vorn
