#include "shell/shim.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/cli_error.h"
#include "core/text.h"
#include "paths/paths.h"

namespace vorn {

namespace {

// A shim is a few kilobytes; more than this of a file at its path is not read.
constexpr size_t shimReadLimit = 64 * 1024;

constexpr std::string_view appCLI = "Contents/Resources/app/bin/vorn";
constexpr std::string_view defaultApp = "/Applications/Vorn.app";
constexpr std::string_view homebrewBin = "/opt/homebrew/bin";

std::vector<std::string> splitPath(const std::string& path) {
  std::vector<std::string> entries;
  size_t start = 0;
  while (true) {
    size_t colon = path.find(':', start);
    entries.push_back(path.substr(start, colon - start));
    if (colon == std::string::npos) return entries;
    start = colon + 1;
  }
}

ShimFile unreadable(std::string error) {
  ShimFile file;
  file.state = ShimFile::State::unreadable;
  file.error = std::move(error);
  return file;
}

ShimFile cannotRead(const std::string& path, int error) {
  if (error == EISDIR) return unreadable(path + " is a directory");
  return unreadable("cannot read " + path + ": " + ::strerror(error));
}

// Reads the start of the file at `path`, which lstat found. Never blocks: a FIFO is refused.
ShimFile readShim(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    // A link to nothing is a file of ours to replace or report, with no marker in it.
    if (errno == ENOENT) return ShimFile{ShimFile::State::foreign, "", ""};
    return cannotRead(path, errno);
  }
  struct stat st;
  ShimFile file;
  if (::fstat(fd, &st) != 0) {
    file = cannotRead(path, errno);
  } else if (S_ISDIR(st.st_mode)) {
    file = cannotRead(path, EISDIR);
  } else if (!S_ISREG(st.st_mode)) {
    file = unreadable(path + " is not a regular file");
  } else {
    char buffer[8192];
    while (file.text.size() < shimReadLimit) {
      ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        file = cannotRead(path, errno);
        break;
      }
      if (n == 0) break;
      file.text.append(buffer, static_cast<size_t>(n));
    }
    if (file.state != ShimFile::State::unreadable) {
      file.state = file.text.find(shimMarker) != std::string::npos ? ShimFile::State::managed
                                                                   : ShimFile::State::foreign;
    }
  }
  ::close(fd);
  return file;
}

}  // namespace

std::optional<std::string> installedApp(const Context& ctx) {
  std::vector<std::string> candidates;
  if (const std::string* app = ctx.getenv("VORN_APP"); app && !app->empty()) {
    candidates.push_back(Paths::absolute(ctx.cwd, *app));
  }
  if (size_t at = ctx.executable.find(".app/Contents/"); at != std::string::npos) {
    candidates.push_back(ctx.executable.substr(0, at + 4));
  }
  candidates.emplace_back(defaultApp);
  for (const std::string& candidate : candidates) {
    if (Paths::isDirectory(candidate)) return candidate;
  }
  return std::nullopt;
}

ShellCommand ShellCommand::from(const Context& ctx) {
  ShellCommand shell;
  if (const std::string* home = ctx.getenv("HOME")) shell.home = *home;
  // Without an absolute HOME there is no shim path: a relative one would land anywhere.
  if (shell.home.rfind("/", 0) == 0) {
    shell.binDir = Paths::join({shell.home, ".local", "bin"});
    shell.shimPath = Paths::join({shell.binDir, "vorn"});
  }
  if (std::optional<std::string> root = Paths::checkout(ctx.cwd)) {
    shell.fallback = *root;
  } else if (const std::string* repo = ctx.getenv("VORN_REPO_ROOT")) {
    std::string_view value = trimBlanks(*repo);
    // The shim runs from anywhere, so a relative value is taken against this directory.
    if (!value.empty()) shell.fallback = Paths::absolute(ctx.cwd, value);
  }
  if (std::optional<std::string> app = installedApp(ctx)) {
    shell.appBin = Paths::join({*app, appCLI});
  }
  if (const std::string* prefix = ctx.getenv("HOMEBREW_PREFIX"); prefix && !prefix->empty()) {
    shell.brewBinDirs.push_back(Paths::join({*prefix, "bin"}));
  }
  if (shell.brewBinDirs.empty() || shell.brewBinDirs[0] != homebrewBin) {
    shell.brewBinDirs.emplace_back(homebrewBin);
  }
  if (const std::string* path = ctx.getenv("PATH")) shell.pathEntries = splitPath(*path);
  return shell;
}

ShimFile ShellCommand::inspect() const {
  if (shimPath.empty()) return unreadable("HOME is not set to an absolute path");
  struct stat st;
  if (::lstat(shimPath.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return ShimFile{};
    return cannotRead(shimPath, errno);
  }
  if (S_ISDIR(st.st_mode)) return cannotRead(shimPath, EISDIR);
  return readShim(shimPath);
}

std::optional<bool> ShellCommand::managed() const {
  ShimFile file = inspect();
  switch (file.state) {
    case ShimFile::State::absent:
      return std::nullopt;
    case ShimFile::State::unreadable:
      throw CliError{file.error, 1};
    case ShimFile::State::managed:
      return true;
    case ShimFile::State::foreign:
      break;
  }
  return false;
}

bool ShellCommand::onPath() const {
  if (binDir.empty()) return false;
  std::string dir = Paths::normalize(binDir);
  for (const std::string& entry : pathEntries) {
    if (!entry.empty() && Paths::normalize(entry) == dir) return true;
  }
  return false;
}

std::optional<BrewLink> ShellCommand::brewLinked() const {
  for (const std::string& dir : brewBinDirs) {
    std::string link = Paths::join({dir, "vorn"});
    struct stat st;
    if (::lstat(link.c_str(), &st) == 0) return BrewLink{link, Paths::real(link)};
  }
  return std::nullopt;
}

}  // namespace vorn
