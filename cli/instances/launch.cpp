// Starting the desktop app through the macOS `open` command.
#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "instances/instances.h"
#include "paths/checkout.h"
#include "paths/paths.h"

extern char** environ;

namespace vorn {

namespace {

// The status of a program that could not be started at all, as shells report it.
constexpr int32_t notStartedStatus = 127;

// Spawn attributes that are destroyed on every path out of a scope.
class SpawnAttributes {
 public:
  SpawnAttributes() { ready_ = ::posix_spawnattr_init(&attr_) == 0; }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  ~SpawnAttributes() {
    if (ready_) ::posix_spawnattr_destroy(&attr_);
  }
  bool ready() const { return ready_; }
  posix_spawnattr_t* get() { return &attr_; }

 private:
  posix_spawnattr_t attr_;
  bool ready_ = false;
};

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

int32_t runProcess(const std::string& executable, const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 2);
  argv.push_back(const_cast<char*>(executable.c_str()));
  for (const auto& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  // The CLI ignores SIGPIPE for itself; the child gets the default disposition back.
  SpawnAttributes attributes;
  if (!attributes.ready()) return notStartedStatus;
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  if (::posix_spawnattr_setsigdefault(attributes.get(), &defaults) != 0 ||
      ::posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETSIGDEF) != 0) {
    return notStartedStatus;
  }

  pid_t child = 0;
  if (::posix_spawn(&child, executable.c_str(), nullptr, attributes.get(), argv.data(), environ) !=
      0) {
    return notStartedStatus;
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return notStartedStatus;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return notStartedStatus;
}

// The only platform difference of the launch: elsewhere there is no `open` to hand the app to,
// and a program of that name must never be run in its place.
void Instances::launchApp(const std::optional<std::string>& folder, bool forceNew,
                          const std::map<std::string, std::string>& env) const {
#if defined(__APPLE__)
  int32_t status =
      runProcess("/usr/bin/open", openArguments(appBundle(ctx), folder, forceNew, env, ctx.cwd));
  if (status != 0) throw CliError{"open failed (exit " + std::to_string(status) + ")"};
#else
  (void)folder;
  (void)forceNew;
  (void)env;
  throw CliError{
      "no app can be launched on this system (the Vorn app runs on macOS) \u2014 start an "
      "instance with vorn server start <dir>",
      1};
#endif
}

}  // namespace vorn
