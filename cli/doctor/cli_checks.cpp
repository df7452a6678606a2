// The doctor's rows about how vorn itself is installed: the checkout it belongs to, Bun,
// Homebrew and the PATH shim.
#include <sys/stat.h>
#include <unistd.h>

#include "doctor/doctor.h"
#include "paths/checkout.h"
#include "paths/paths.h"
#include "shell/shim.h"

namespace vorn {

namespace {

bool isExecutableFile(const std::string& path) {
  return Paths::isRegularFile(path) && ::access(path.c_str(), X_OK) == 0;
}

DoctorCheck repoCheck(const Context& ctx, const std::optional<std::string>& root) {
  if (root) return {"cli.repo", "ok", *root};
  const std::string* named = ctx.getenv("VORN_REPO_ROOT");
  if (named && !named->empty()) {
    return {"cli.repo", "fail", "VORN_REPO_ROOT=" + *named + " is not a Vorn checkout"};
  }
  return {"cli.repo", "ok",
          std::string("no checkout") + detailDash +
              "product verbs only (vorn dev needs one: run from it or set VORN_REPO_ROOT)"};
}

DoctorCheck bunCheck(const std::optional<std::string>& bun,
                     const std::optional<std::string>& root) {
  if (bun) return {"cli.bun", "ok", *bun};
  if (root) {
    std::string native = Paths::join({*root, NativeBuild::executable});
    if (!isExecutableFile(native)) {
      return {"cli.bun", "warn",
              "bun is not on PATH and there is no native CLI build at " + native + detailDash +
                  "the vorn shim needs one (" + std::string(NativeBuild::buildCommand) + ")"};
    }
  }
  return {"cli.bun", "ok",
          "bun is not on PATH; product verbs run in the native CLI (vorn dev needs bun)"};
}

DoctorCheck brewCheck(const std::optional<BrewLink>& brew) {
  if (brew) {
    return {"cli.brew", "ok", "Homebrew links vorn at " + brew->link + " \u2192 " + brew->target};
  }
  return {"cli.brew", "ok", "Homebrew does not link vorn (brew install --cask qor-labs/tap/vorn)"};
}

}  // namespace

std::vector<DoctorCheck> Doctor::cliChecks() const {
  std::optional<std::string> root = checkoutRoot(ctx.cwd, ctx.executable, ctx.env);
  const ShellCommand shell = ShellCommand::from(ctx);
  const std::optional<BrewLink> brew = shell.brewLinked();
  return {repoCheck(ctx, root), bunCheck(which("bun"), root), brewCheck(brew),
          shimCheck(shell, brew)};
}

DoctorCheck Doctor::shimCheck() const {
  const ShellCommand shell = ShellCommand::from(ctx);
  return shimCheck(shell, shell.brewLinked());
}

// The first finding that applies: not installed (fine), unreadable, foreign, a stale fallback,
// an old shim, not runnable, not what PATH finds, shadowing Homebrew's vorn; else ok.
DoctorCheck Doctor::shimCheck(const ShellCommand& shell,
                              const std::optional<BrewLink>& brew) const {
  const std::string& path = shell.shimPath;
  const ShimFile file = shell.inspect();
  auto warn = [](std::string detail) { return DoctorCheck{"cli.shim", "warn", std::move(detail)}; };

  switch (file.state) {
    case ShimFile::State::absent:
      if (brew) {
        return {"cli.shim", "ok",
                path + " not installed" + detailDash + "Homebrew links vorn at " + brew->link};
      }
      return {"cli.shim", "ok",
              path + " not installed" + detailDash +
                  "Omnibar \"Install 'vorn' in PATH\" or vorn shell-command install"};
    case ShimFile::State::unreadable:
      return warn(file.error);
    case ShimFile::State::foreign:
      return warn(path + " exists but is not Vorn-managed");
    case ShimFile::State::managed:
      break;
  }

  const std::string fallback = shimValue(file.text, "FALLBACK").value_or("");
  if (!fallback.empty()) {
    struct stat st;
    if (::stat(fallback.c_str(), &st) != 0) {
      return warn(path + " falls back to " + fallback + ", which is gone" + detailDash +
                  "reinstall");
    }
    if (!Paths::isRegularFile(Paths::join({fallback, Paths::checkoutScriptEntry}))) {
      return warn(path + " falls back to " + fallback + ", which has no CLI" + detailDash +
                  "reinstall");
    }
  }
  if (file.text.find(shimCheckoutSearch) == std::string::npos) {
    return warn(path + " predates $PWD checkout detection" + detailDash +
                "reinstall (vorn shell-command install)");
  }
  if (!isExecutableFile(path)) {
    return warn(path + " is not executable" + detailDash +
                "reinstall (vorn shell-command install)");
  }
  std::optional<std::string> found = which("vorn");
  if (!found)
    return warn(path + " is not on PATH" + detailDash + "add " + shell.binDir + " to PATH");
  if (Paths::real(*found) != Paths::real(path)) {
    return warn("vorn on PATH resolves to " + *found + ", shadowing " + path);
  }
  if (brew) {
    return warn(path + " shadows Homebrew's " + brew->link + detailDash +
                "vorn shell-command uninstall");
  }
  std::string last = fallback;
  if (last.empty()) last = shimValue(file.text, "APP").value_or("");
  if (last.empty()) last = "nothing";
  return {"cli.shim", "ok", path + " \u2192 checkout of $PWD, else VORN_REPO_ROOT, else " + last};
}

}  // namespace vorn
