// Starting the desktop app through the macOS `open` command.
#include <sys/stat.h>

#include "instances/instances.h"
#include "paths/checkout.h"
#include "paths/paths.h"
#include "process/process.h"

namespace vorn {

namespace {

bool existsOnDisk(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

}  // namespace

std::optional<std::string> appBundle(const Context& ctx) {
  std::vector<std::string> candidates;
  if (const std::string* app = ctx.getenv("VORN_APP"); app && !app->empty()) {
    candidates.push_back(*app);
  }
  // A CLI inside an installed bundle launches that bundle.
  if (size_t at = ctx.executable.find(".app/Contents/"); at != std::string::npos) {
    candidates.push_back(ctx.executable.substr(0, at + 4));
  }
  if (std::optional<std::string> checkout = checkoutRoot(ctx.cwd, ctx.executable, ctx.env)) {
    const std::string* edition = ctx.getenv("VORN_EDITION");
    if (edition && *edition == "markdown") {
      candidates.push_back(
          Paths::join({*checkout, "build/markdown/dev-macos-arm64/Vorn Scrivo-dev.app"}));
    } else {
      candidates.push_back(Paths::join({*checkout, "build/dev-macos-arm64/Vorn-dev.app"}));
    }
  }
  candidates.push_back("/Applications/Vorn.app");
  for (const auto& candidate : candidates) {
    if (existsOnDisk(candidate)) return candidate;
  }
  return std::nullopt;
}

std::vector<std::string> openArguments(const std::optional<std::string>& bundle,
                                       const std::optional<std::string>& folder, bool forceNew,
                                       const std::map<std::string, std::string>& env,
                                       const std::string& cwd) {
  std::vector<std::string> args;
  if (forceNew) args.push_back("-n");
  args.push_back("-a");
  args.push_back(bundle.value_or("Vorn-dev"));
  // std::map iterates in ascending key order, which keeps the command line deterministic.
  for (const auto& [key, value] : env) {
    args.push_back("--env");
    args.push_back(key + "=" + value);
  }
  if (folder) {
    args.push_back("--args");
    args.push_back(Paths::absolute(cwd, *folder));
  }
  return args;
}

// The only platform difference of the launch: elsewhere there is no `open` to hand the app to,
// and a program of that name must never be run in its place.
bool Instances::canLaunchApp() {
#if defined(__APPLE__)
  return true;
#else
  return false;
#endif
}

void Instances::launchApp(const std::optional<std::string>& folder, bool forceNew,
                          const std::map<std::string, std::string>& env) const {
  if (!canLaunchApp()) {
    throw CliError{
        "no app can be launched on this system (the Vorn app runs on macOS) \u2014 start an "
        "instance with vorn server start <dir>",
        1};
  }
  int32_t status =
      runProcess("/usr/bin/open", openArguments(appBundle(ctx), folder, forceNew, env, ctx.cwd));
  if (status != 0) throw CliError{"open failed (exit " + std::to_string(status) + ")"};
}

}  // namespace vorn
