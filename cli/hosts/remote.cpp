#include "hosts/remote.h"

#include "core/cli_error.h"
#include "instances/instances.h"
#include "paths/paths.h"

namespace vorn {

namespace {

constexpr std::string_view sshScheme = "ssh://";

CliError sshError(const std::string& message, int32_t code = 1) {
  return CliError{"vorn remote ssh: " + message, code};
}

// The checked target and the absolute config file (none when absent or empty).
struct RemoteRequest {
  std::string target;
  std::optional<std::string> sshConfig;
};

RemoteRequest remoteRequest(const Flags& flags, const Context& ctx) {
  if (flags.args.empty()) throw sshError("missing target ([user@]host[:path])", 2);
  const std::string& target = flags.args[0];
  if (!looksLikeSshTarget(target)) {
    throw sshError("not an ssh target: " + target + " (want [user@]host[:path])", 2);
  }
  if (flags.args.size() > 1) throw sshError("unexpected argument " + flags.args[1], 2);
  std::optional<std::string> config;
  if (const std::string* file = flags.value("--ssh-config"); file && !file->empty()) {
    config = Paths::absolute(ctx.cwd, *file);
  }
  return {target, config};
}

// Replaces the CLI with the session runner, which stays in the foreground as an instance.
Outcome runInForeground(const RemoteRequest& request, const Flags& flags, const Context& ctx) {
  HeadlessHost host = enterBunScript(ctx, Scripts::tunnelBundled, Scripts::tunnelSource,
                                     "vorn remote ssh", "remote session runner");
  return Outcome::execHost(tunnelArgv(host, request.target, request.sshConfig, flags.json), {},
                           hostUnsetVariables(host));
}

}  // namespace

bool looksLikeSshTarget(std::string_view text) {
  if (text.substr(0, sshScheme.size()) == sshScheme) text.remove_prefix(sshScheme.size());
  // A target that begins with "-" would reach ssh as one of its options (-oProxyCommand=...).
  if (text.empty() || text.front() == ':' || text.front() == '@' || text.front() == '/' ||
      text.front() == '-') {
    return false;
  }
  return text.find_first_of(" \t\n") == std::string_view::npos;
}

std::vector<std::string> tunnelArgv(const HeadlessHost& host, const std::string& target,
                                    const std::optional<std::string>& sshConfig, bool json) {
  std::vector<std::string> argv = {host.bun, host.entry, target};
  if (sshConfig) {
    argv.push_back("--ssh-config");
    argv.push_back(*sshConfig);
  }
  if (json) argv.push_back("--json");
  return argv;
}

std::map<std::string, std::string> windowEnvironment(const std::string& target,
                                                     const std::optional<std::string>& sshConfig) {
  std::map<std::string, std::string> env = {{"VORN_REMOTE_SSH", target}};
  if (sshConfig) env["VORN_SSH_CONFIG"] = *sshConfig;
  return env;
}

Outcome remoteSsh(const Flags& flags, Context& ctx) {
  RemoteRequest request = remoteRequest(flags, ctx);
  // Where no app window can be opened, the foreground runner is the only way.
  if (flags.has("--no-window") || !Instances::canLaunchApp()) {
    return runInForeground(request, flags, ctx);
  }
  Instances{ctx}.launchApp(std::nullopt, true,
                           windowEnvironment(request.target, request.sshConfig));
  ctx.writeOut("vorn remote ssh: opening a window for " + request.target + "\n");
  return Outcome::exit(0);
}

}  // namespace vorn
