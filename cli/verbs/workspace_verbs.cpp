// `vorn workspace open|show|tree`: the folder an instance has open.
#include <unistd.h>

#include <chrono>
#include <set>

#include "core/text.h"
#include "paths/paths.h"
#include "transport/transport.h"
#include "verbs/open.h"
#include "verbs/verbs.h"

namespace vorn {

namespace {

// How long a launched app gets to publish its control socket, and how often we look.
constexpr auto launchWait = std::chrono::seconds(15);
constexpr auto launchPoll = std::chrono::milliseconds(200);

// Starts the app on `dir`. Its errors keep their meaning but get this command's words in front.
void launch(const Instances& instances, const std::string& dir, bool forceNew) {
  try {
    instances.launchApp(dir, forceNew, {});
  } catch (CliError& error) {
    if (!error.message.empty() && error.message.rfind("vorn", 0) != 0) {
      error.message = "vorn workspace open: " + error.message;
    }
    throw;
  }
}

std::optional<InstanceInfo> waitForLaunch(const Instances& instances,
                                          const std::set<std::string>& known) {
  Waiting waiting(instances.ctx.status,
                  {"waiting for the app to show a new instance", launchWait, false});
  return waitForNewInstance([&] { return instances.scan(false).live; }, known, launchWait,
                            launchPoll);
}

void workspaceOpen(const Flags& flags, Instances& instances) {
  const std::string label = "workspace open";
  if (flags.args.empty()) throw usageError("vorn workspace open: missing directory");
  if (flags.all) {
    throw usageError("vorn workspace open: --all is rejected (use -i ID, --new, or a loop)");
  }
  rejectExtraArguments(flags, 1, label);

  const std::string& typed = flags.args[0];
  const std::string dir = Paths::absolute(instances.ctx.cwd, typed);
  if (!Paths::isDirectory(dir)) {
    throw usageError("vorn workspace open: not a directory: " + typed + " (files: vorn file open)");
  }

  // An empty --sock still names a socket: it must fail there, not fall through to a guess.
  if (hasSelector(flags) || flags.sock) {
    std::vector<InstanceInfo> found = instances.resolve(flags, true, true);
    if (found.empty()) {
      throw CliError{"vorn workspace open: no instance matches " + selectorText(flags)};
    }
    openOn(instances, found.front(), dir);
    return;
  }

  if (flags.has("--new")) {
    std::set<std::string> known;
    for (const InstanceInfo& instance : instances.scan(false).live)
      known.insert(instance.id);
    launch(instances, dir, true);
    std::optional<InstanceInfo> fresh = waitForLaunch(instances, known);
    if (!fresh) throw CliError{"vorn workspace open: launched app but no new instance appeared"};
    openOn(instances, *fresh, dir);
    return;
  }

  // This checkout's own dev app wins over whatever else runs.
  if (std::optional<InstanceInfo> mine = instances.own()) {
    openOn(instances, *mine, dir);
    return;
  }

  std::vector<InstanceInfo> live = instances.scan(false).live;
  if (live.empty()) {
    launch(instances, dir, false);
    std::optional<InstanceInfo> first = waitForLaunch(instances, {});
    if (!first) {
      throw CliError{"vorn workspace open: launched app but control socket never appeared"};
    }
    openOn(instances, *first, dir);
    return;
  }

  std::vector<InstanceInfo> pool =
      instances.implicitPool(live, "vorn workspace open: no app for this checkout");
  std::vector<InstanceInfo> match = matchInstances(pool, flags.instance, flags.pid);
  if (match.size() == 1) {
    openOn(instances, match.front(), dir);
    return;
  }
  if (match.empty() && pool.size() <= 1) {
    throw CliError{"vorn workspace open: no instance matches " + selectorText(flags)};
  }
  const std::vector<InstanceInfo>& candidates = match.empty() ? pool : match;
  throw ambiguous(
      "vorn workspace open: " + std::to_string(candidates.size()) + " instances running",
      candidates, "pass -i ID or --new");
}

void workspaceShow(const Flags& flags, Instances& instances) {
  rejectExtraArguments(flags, 0, "workspace show");
  instances.readEach("GET", "/workspace", nullptr, flags, "workspace show");
}

void workspaceTree(const Flags& flags, Instances& instances) {
  rejectExtraArguments(flags, 0, "workspace tree");
  instances.readEach("POST", "/api/listTree", nullptr, flags, "workspace tree");
}

}  // namespace

std::optional<InstanceInfo> waitForNewInstance(
    const std::function<std::vector<InstanceInfo>()>& scan, const std::set<std::string>& known,
    std::chrono::milliseconds wait, std::chrono::milliseconds interval) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  while (true) {
    for (const InstanceInfo& instance : scan()) {
      if (known.count(instance.id) == 0) return instance;
    }
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    ::usleep(static_cast<useconds_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(interval).count()));
  }
}

std::string selectorText(const Flags& flags) {
  if (flags.pid) return "pid " + std::to_string(*flags.pid);
  if (flags.instance && !flags.instance->empty()) return *flags.instance;
  return flags.sock.value_or("");
}

void openOn(const Instances& instances, const InstanceInfo& instance, const std::string& dir) {
  const JSON body = JSON::object({{"root", JSON(dir)}});
  Reply reply;
  try {
    Waiting waiting(instances.ctx.status, answerWait(waitingForAnswer(instance)));
    reply = Transport::request(instance.socketPath, "POST", "/workspace", &body);
  } catch (const TransportError& error) {
    throw CliError{error.description};
  }

  const JSON* ok = reply.body.get("ok");
  if (reply.ok() && !(ok && *ok == JSON(false))) {
    // The folder is open even when the window cannot be raised, so /focus may fail quietly.
    try {
      Waiting waiting(instances.ctx.status, answerWait(waitingForAnswer(instance)));
      Transport::request(instance.socketPath, "POST", "/focus");
    } catch (const TransportError&) {
    }
    const JSON* root = reply.body.get("root");
    const std::string shown = root && root->string() ? std::string(*root->string()) : dir;
    instances.ctx.writeOut(visibleControls("Opened " + shown + " on instance " + instance.id + "\n"));
    return;
  }

  std::optional<std::string> error = reply.body.error();
  if (error && !error->empty()) throw CliError{*error};
  throw CliError{"open failed on " + instance.id + " (" + std::to_string(reply.status) + ")"};
}

VerbTable workspaceVerbs() {
  return {
      {"open", workspaceOpen},
      {"show", workspaceShow},
      {"tree", workspaceTree},
  };
}

}  // namespace vorn
