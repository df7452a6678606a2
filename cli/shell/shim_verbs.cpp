// `vorn shell-command install|uninstall|status`: the managed shim at ~/.local/bin/vorn.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "core/cli_error.h"
#include "core/flags.h"
#include "json/json.h"
#include "shell/shim.h"

namespace vorn {

namespace {

CliError failure(const std::string& verb, const std::string& what) {
  return CliError{"vorn shell-command " + verb + ": " + what, 1};
}

// The shell's view of the shim, after the checks every verb makes: no stray words, a HOME to
// put the shim in, and a shim path holding a readable file or nothing.
struct Checked {
  ShellCommand shell;
  std::optional<bool> managed;
};

Checked checked(const Flags& flags, const Context& ctx, const std::string& verb) {
  rejectExtraArguments(flags, 0, "shell-command " + verb);
  Checked out{ShellCommand::from(ctx), std::nullopt};
  if (out.shell.shimPath.empty()) {
    throw failure(verb, "HOME is not set to an absolute path (the shim lives in ~/.local/bin)");
  }
  try {
    out.managed = out.shell.managed();
  } catch (const CliError& error) {
    throw failure(verb, error.message + " \u2014 left as it is");
  }
  return out;
}

// Writes the shim next to its place and renames it over whatever is there, so a shim that is
// running while it is replaced reads on from its old text.
void writeShim(const ShellCommand& shell, const std::string& text) {
  std::error_code ec;
  std::filesystem::create_directories(shell.binDir, ec);
  if (ec) throw failure("install", "cannot create " + shell.binDir + ": " + ec.message());
  std::string temp = shell.binDir + "/.vorn.install-" + std::to_string(::getpid());
  int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) throw failure("install", "cannot write " + shell.shimPath + ": " + ::strerror(errno));
  auto fail = [&](const std::string& what) {
    int error = errno;
    ::unlink(temp.c_str());
    return failure("install", what + " " + shell.shimPath + ": " + ::strerror(error));
  };
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      throw fail("cannot write");
    }
    done += static_cast<size_t>(n);
  }
  if (::close(fd) != 0) throw fail("cannot write");
  if (::chmod(temp.c_str(), 0755) != 0) throw fail("cannot chmod");
  if (::rename(temp.c_str(), shell.shimPath.c_str()) != 0) throw fail("cannot replace");
}

void install(const Flags& flags, Context& ctx) {
  Checked state = checked(flags, ctx, "install");
  const ShellCommand& shell = state.shell;
  if (std::optional<BrewLink> brew = shell.brewLinked()) {
    ctx.writeOut("'vorn' is already installed by Homebrew at " + brew->link +
                 " \u2014 nothing to do\n");
    return;
  }
  for (const std::string* value : {&shell.fallback, &shell.appBin}) {
    if (!shimCanCarry(*value)) {
      throw failure("install", "cannot write a shim for " + *value +
                                   ": the path holds $, ` or a control character, which the "
                                   "shim script cannot carry");
    }
  }
  writeShim(shell, shimBody(shell.fallback, shell.appBin));
  std::string out = "Installed 'vorn' to " + shell.shimPath + "\n";
  if (!shell.onPath()) out += "Add " + shell.binDir + " to PATH to use it in new terminals\n";
  ctx.writeOut(out);
}

void uninstall(const Flags& flags, Context& ctx) {
  Checked state = checked(flags, ctx, "uninstall");
  const std::string& path = state.shell.shimPath;
  if (!state.managed) {
    ctx.writeOut("'vorn' was not installed at " + path + "\n");
    return;
  }
  if (!*state.managed) {
    throw CliError{path + " exists but was not installed by Vorn \u2014 leaving it untouched", 1};
  }
  if (::unlink(path.c_str()) != 0) {
    throw failure("uninstall", "cannot remove " + path + ": " + ::strerror(errno));
  }
  ctx.writeOut("Removed 'vorn' from " + path + "\n");
}

void status(const Flags& flags, Context& ctx) {
  Checked state = checked(flags, ctx, "status");
  const ShellCommand& shell = state.shell;
  bool onPath = shell.onPath();
  if (flags.json) {
    JSON reply = JSON::object({{"installed", JSON(state.managed.has_value())},
                               {"path", JSON(shell.shimPath)},
                               {"managed", JSON(state.managed.value_or(false))},
                               {"onPath", JSON(onPath)}});
    ctx.writeOut(reply.serialized(2) + "\n");
    return;
  }
  std::string installed = !state.managed   ? "not installed"
                          : *state.managed ? "installed (Vorn-managed)"
                                           : "present, not Vorn-managed";
  std::string out =
      shell.shimPath + ": " + installed + "; " + (onPath ? "on PATH" : "dir not on PATH") + "\n";
  if (std::optional<BrewLink> brew = shell.brewLinked()) {
    out += brew->link + ": Homebrew \u2192 " + brew->target + "\n";
  }
  ctx.writeOut(out);
}

}  // namespace

std::map<std::string, Handler> shimVerbs() {
  return {{"install", install}, {"uninstall", uninstall}, {"status", status}};
}

}  // namespace vorn
