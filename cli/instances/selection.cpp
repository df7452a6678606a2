// Choosing the instances a command acts on, and waiting for one to go away.
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "core/text.h"
#include "instances/instances.h"
#include "paths/checkout.h"
#include "paths/paths.h"

namespace vorn {

namespace {

// `sock` (normalised) is exactly <root>/<digits>/fs.sock for the normalised runtime `root`.
bool isRuntimeSocket(const std::string& sock, const std::string& root) {
  std::string prefix = root == "/" ? "/" : root + "/";
  constexpr std::string_view leaf = "/fs.sock";
  if (sock.size() <= prefix.size() + leaf.size() || sock.compare(0, prefix.size(), prefix) != 0 ||
      sock.compare(sock.size() - leaf.size(), leaf.size(), leaf) != 0) {
    return false;
  }
  std::string_view folder(sock.data() + prefix.size(), sock.size() - prefix.size() - leaf.size());
  return !folder.empty() && std::all_of(folder.begin(), folder.end(),
                                        [](char c) { return c >= '0' && c <= '9'; });
}

const char* const listHint = "pass -i ID (see vorn instance list)";
const char* const checkoutHint = "vorn dev app start, or pass -i ID (see vorn instance list)";

// How often waitForExit looks again.
constexpr useconds_t exitPollMicroseconds = 100000;
constexpr double maxWaitSeconds = 1e9;

}  // namespace

bool hasSelector(const Flags& flags) {
  return (flags.sock && !flags.sock->empty()) || flags.pid.has_value() ||
         (flags.instance && !flags.instance->empty()) || flags.all;
}

std::vector<InstanceInfo> matchInstances(const std::vector<InstanceInfo>& instances,
                                         const std::optional<std::string>& id,
                                         const std::optional<int64_t>& pid) {
  std::vector<InstanceInfo> out;
  if (pid) {
    for (const auto& instance : instances) {
      if (instance.pid == *pid) out.push_back(instance);
    }
    return out;
  }
  if (!id || id->empty()) {
    // Without a selector a single instance is the obvious one; of several, none is.
    if (instances.size() == 1) out = instances;
    return out;
  }
  for (const auto& instance : instances) {
    if (instance.id == *id) out.push_back(instance);
  }
  if (!out.empty()) return out;
  for (const auto& instance : instances) {
    if (instance.id.compare(0, id->size(), *id) == 0) out.push_back(instance);
  }
  return out;
}

CliError ambiguous(const std::string& message, const std::vector<InstanceInfo>& instances,
                   const std::string& hint) {
  CliError error{message + " \u2014 " + hint, 2};
  std::vector<std::string> ids;
  ids.reserve(instances.size());
  for (const auto& instance : instances)
    ids.push_back(instance.id);
  error.instances = std::move(ids);
  error.preface = instanceTable(instances);
  return error;
}

std::optional<InstanceInfo> Instances::own() const {
  std::optional<std::string> checkout = checkoutRoot(ctx.cwd, ctx.executable, ctx.env);
  if (!checkout) return std::nullopt;
  std::string file = Paths::join({*checkout, ".cache/vorn/dev-app.json"});
  std::optional<std::string> text = Paths::readFile(file);
  if (!text || !isValidUTF8(*text)) return std::nullopt;
  JSON record;
  try {
    record = JSON::parse(*text);
  } catch (const JSONParseError&) {
    return std::nullopt;
  }
  const JSON* pidValue = record.get("pid");
  std::optional<int64_t> pid = pidValue ? pidValue->integer() : std::nullopt;
  const JSON* sockValue = record.get("socketPath");
  std::optional<std::string> sock;
  if (std::optional<std::string_view> text = sockValue ? sockValue->string() : std::nullopt) {
    sock = std::string(*text);
  }
  if (!pid || !sock || sock->empty()) return std::nullopt;

  // Only a socket of our own runtime directory is trusted: exactly <root>/<digits>/fs.sock once
  // the whole path is normalised (<root>/../agent.sock is not in the root).
  std::string normalSock = Paths::normalize(*sock);
  if (!isRuntimeSocket(normalSock, Paths::normalize(runtimeRoot()))) return std::nullopt;

  std::optional<InstanceInfo> info = probeInstance(
      normalSock, ctx.status, "pid " + std::to_string(*pid) + " (" + normalSock + ")");
  if (!info || info->pid != *pid) {
    ::unlink(file.c_str());  // the app it describes is gone; a failed delete does no harm
    return std::nullopt;
  }
  return info;
}

std::vector<InstanceInfo> Instances::implicitPool(const std::vector<InstanceInfo>& instances,
                                                  const std::string& message) const {
  std::optional<std::string> checkout = checkoutRoot(ctx.cwd, ctx.executable, ctx.env);
  if (!checkout) return instances;
  std::string root = Paths::real(*checkout);
  std::optional<int64_t> envPid;
  if (const std::string* value = ctx.getenv("VORN_PID"); value && !value->empty()) {
    envPid = parseSignedInteger(*value);
  }
  std::vector<InstanceInfo> kept;
  for (const auto& instance : instances) {
    if (Paths::real(instance.vornRoot) == root || (envPid && instance.pid == *envPid)) {
      kept.push_back(instance);
    }
  }
  if (!instances.empty() && kept.empty()) throw ambiguous(message, instances, checkoutHint);
  return kept;
}

std::vector<InstanceInfo> Instances::resolve(const Flags& flags, bool requireOneWhenMany,
                                             bool allowAll) const {
  if (flags.sock) {
    if (std::optional<InstanceInfo> info =
            probeInstance(*flags.sock, ctx.status, "the instance at " + *flags.sock)) {
      return {*info};
    }
    throw CliError{"no healthy instance at " + *flags.sock};
  }
  bool selector = hasSelector(flags);
  if (!selector) {
    if (std::optional<InstanceInfo> mine = own()) return {*mine};
  }
  std::vector<InstanceInfo> live = scan(false).live;
  if (flags.all) {
    if (allowAll) return live;
    throw CliError{"--all is not valid for this command"};
  }
  std::vector<InstanceInfo> pool = selector ? live : implicitPool(live, "no app for this checkout");
  std::vector<InstanceInfo> match = matchInstances(pool, flags.instance, flags.pid);
  if (!match.empty()) return match;

  std::string sel = flags.pid ? "pid " + std::to_string(*flags.pid) : flags.instance.value_or("");
  if (requireOneWhenMany && sel.empty() && pool.size() > 1) {
    throw ambiguous(std::to_string(pool.size()) + " instances running", pool, listHint);
  }
  if (!sel.empty()) throw CliError{"no instance matches " + sel};
  return {};
}

InstanceInfo Instances::one(const Flags& flags, const std::string& verb) const {
  std::vector<InstanceInfo> found = resolve(flags, true, false);
  if (found.empty()) {
    throw CliError{"vorn " + verb + ": no running instance (vorn workspace open <dir> first)"};
  }
  return found.front();
}

bool Instances::workspaceContains(const InstanceInfo& instance, const std::string& path) {
  if (instance.workspace.empty()) return false;
  std::string rel = Paths::relative(Paths::real(instance.workspace), Paths::real(path));
  if (rel.empty()) return false;
  // A plain prefix test on purpose: a top-level name such as "..notes" counts as outside.
  return rel.compare(0, 2, "..") != 0;
}

InstanceInfo Instances::owner(const std::string& path, const std::string& verb) const {
  std::string target = Paths::real(path);
  auto owns = [&](const InstanceInfo& instance) {
    if (instance.workspace.empty()) return false;
    return Paths::real(instance.workspace) == target || workspaceContains(instance, path);
  };

  if (std::optional<InstanceInfo> mine = own(); mine && owns(*mine)) return *mine;

  std::vector<InstanceInfo> live = scan(false).live;
  if (live.empty()) {
    throw CliError{
        "vorn " + verb +
        ": no running instances \u2014 open its folder first: vorn workspace open <dir>"};
  }
  std::vector<InstanceInfo> candidates;
  for (const auto& instance : live) {
    if (owns(instance)) candidates.push_back(instance);
  }
  if (candidates.size() == 1) return candidates.front();
  if (candidates.empty()) {
    throw CliError{"vorn " + verb + ": no instance has " + path +
                   " in its workspace \u2014 run vorn workspace open <dir> first"};
  }
  throw ambiguous(verb + ": " + std::to_string(candidates.size()) + " instances have " + path +
                      " in their workspace",
                  candidates, listHint);
}

bool Instances::waitForExit(const InstanceInfo& instance, double timeoutSeconds) const {
  using Clock = std::chrono::steady_clock;
  // Clamped so that a silly timeout cannot overflow the clock arithmetic.
  double seconds = timeoutSeconds > 0 ? std::min(timeoutSeconds, maxWaitSeconds) : 0;
  Clock::time_point deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(seconds));
  WaitSpec words{
      "waiting for instance " + instance.id + " (pid " + std::to_string(instance.pid) + ") to exit",
      std::chrono::milliseconds(static_cast<long long>(seconds * 1000)), false};
  Waiting waiting(ctx.status, std::move(words));
  while (Clock::now() < deadline) {
    bool gone = !instance.foreign && !pidAlive(instance.pid);
    if (!gone) {
      std::optional<InstanceInfo> now = probeInstance(instance.socketPath);
      gone = !now || !(*now == instance);
    }
    if (gone) {
      scan(false);  // clears the dead folder away
      return true;
    }
    ::usleep(exitPollMicroseconds);
  }
  return false;
}

}  // namespace vorn
