#include "hosts/bun_script.h"

#include <unistd.h>

#include "core/cli_error.h"
#include "paths/checkout.h"
#include "paths/paths.h"

namespace vorn {

namespace {

constexpr std::string_view bundleMark = ".app/Contents/";

// The app bundle holding the executable ("/x/Vorn.app"), when it runs from inside one.
std::optional<std::string> enclosingApp(const std::string& executable) {
  size_t at = executable.find(bundleMark);
  if (at == std::string::npos) return std::nullopt;
  return executable.substr(0, at + std::string_view(".app").size());
}

}  // namespace

std::optional<HeadlessHost> bundledScript(const std::string& contents, std::string_view name) {
  std::string appDir = Paths::join({contents, "Resources/app"});
  std::string bun = Paths::join({contents, "MacOS/bun"});
  std::string entry = Paths::join({appDir, "bun", name});
  if (!Paths::isRegularFile(bun) || !Paths::isRegularFile(entry)) return std::nullopt;
  return HeadlessHost{std::move(bun), std::move(entry), std::move(appDir), true};
}

std::optional<HeadlessHost> bunScript(const Context& ctx, std::string_view bundled,
                                      std::string_view source, bool checkoutFirst) {
  std::optional<std::string> ownApp = enclosingApp(ctx.executable);
  if (!checkoutFirst && ownApp) {
    if (auto host = bundledScript(*ownApp + "/Contents", bundled)) return host;
  }
  if (auto root = checkoutRoot(ctx.cwd, ctx.executable, ctx.env)) {
    return HeadlessHost{"bun", Paths::join({*root, source}), *root, false};
  }
  std::vector<std::string> apps;
  if (ownApp) apps.push_back(*ownApp);
  // A relative VORN_APP is taken against the current directory: the host runs elsewhere.
  if (const std::string* app = ctx.getenv("VORN_APP"); app && !app->empty()) {
    apps.push_back(Paths::absolute(ctx.cwd, *app));
  }
  apps.emplace_back(Scripts::defaultApp);
  for (const std::string& app : apps) {
    if (app.empty()) continue;
    if (auto host = bundledScript(Paths::join({app, "Contents"}), bundled)) return host;
  }
  return std::nullopt;
}

HeadlessHost enterBunScript(const Context& ctx, std::string_view bundled, std::string_view source,
                            const std::string& command, const std::string& missing) {
  std::optional<HeadlessHost> host = bunScript(ctx, bundled, source, false);
  if (!host) {
    throw CliError{command + ": no " + missing +
                   " \u2014 run the vorn inside Vorn.app, from a Vorn checkout, or set VORN_APP"};
  }
  if (::chdir(host->cwd.c_str()) != 0) throw CliError{command + ": cannot enter " + host->cwd};
  return *host;
}

std::vector<std::string> hostUnsetVariables(const HeadlessHost& host) {
  if (host.bundled) return {"VORN_REPO_ROOT"};
  return {};
}

std::vector<std::string> hostArgv(const HeadlessHost& host,
                                  const std::map<std::string, std::string>& env,
                                  const std::optional<std::string>& dir) {
  std::vector<std::string> argv = {host.bun};
  if (!host.bundled) {
    auto edition = env.find("VORN_EDITION");
    if (edition != env.end() && !edition->second.empty()) {
      argv.push_back("--conditions=vorn-edition-" + edition->second);
    }
  }
  argv.push_back(host.entry);
  if (dir) argv.push_back(*dir);
  return argv;
}

}  // namespace vorn
