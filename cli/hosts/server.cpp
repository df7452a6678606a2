#include "hosts/server.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <thread>

#include "core/cli_error.h"
#include "hosts/bun_script.h"
#include "instances/instances.h"
#include "paths/paths.h"
#include "paths/trust.h"
#include "process/process.h"
#include "transport/transport.h"
#include "transport/unique_fd.h"

namespace vorn {

namespace {

constexpr auto socketPollInterval = std::chrono::milliseconds(150);
constexpr int comeUpSeconds = 30;

CliError startError(const std::string& message, int32_t code = 1) {
  return CliError{"vorn server start: " + message, code};
}

// The host's folder argument made absolute; it must be a directory.
std::optional<std::string> hostDirectory(const Flags& flags, const Context& ctx) {
  if (flags.args.empty()) return std::nullopt;
  if (flags.args.size() > 1) throw startError("unexpected argument " + flags.args[1], 2);
  std::string dir = Paths::absolute(ctx.cwd, flags.args[0]);
  if (!Paths::isDirectory(dir)) throw startError("not a directory: " + flags.args[0], 2);
  return dir;
}

CliError untrusted(const std::string& what, const std::string& path, const std::string& problem) {
  return startError(what + " " + path + " cannot be trusted: " + problem +
                    " \u2014 remove it, or set XDG_RUNTIME_DIR to a folder of your own");
}

// Opens the log for appending, and only when it is ours: a file of our own with no other name,
// or a link of our own (the log folder is private, so no one else can have put one there) to
// something that is not another user's. Throws CliError naming `program` (what could not be
// run) when the log cannot be opened.
int openLog(const std::string& log, const std::string& program) {
  const uid_t self = Trust::self();
  UniqueFd folder(
      ::open(Paths::parent(log).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  std::string name = log.substr(log.rfind('/') + 1);
  int fd = folder.get() < 0 ? -1
                            : ::openat(folder.get(), name.c_str(),
                                       O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
  bool followed = false;
  // O_NOFOLLOW refuses a link with ELOOP (EMLINK on some BSDs).
  if (fd < 0 && (errno == ELOOP || errno == EMLINK)) {
    struct stat link;
    if (::fstatat(folder.get(), name.c_str(), &link, AT_SYMLINK_NOFOLLOW) != 0) {
      throw untrusted("the log", log, "a symbolic link that cannot be examined");
    }
    if (link.st_uid != self) {
      throw untrusted("the log", log,
                      "a symbolic link owned by uid " + std::to_string(link.st_uid));
    }
    fd = ::openat(folder.get(), name.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    followed = true;
  }
  if (fd < 0) throw startError("cannot run " + program + ": " + ::strerror(errno));
  struct stat st;
  std::optional<std::string> problem;
  if (::fstat(fd, &st) != 0) {
    problem = ::strerror(errno);
  } else if (followed) {
    if (!Trust::trustedOwner(st.st_uid, self)) {
      problem = "a symbolic link to a file owned by uid " + std::to_string(st.st_uid);
    }
  } else {
    problem = Trust::ownFileProblem(st, self);
  }
  if (problem) {
    ::close(fd);
    throw untrusted("the log", log, *problem);
  }
  return fd;
}

// Spawns the host in the background, waits for its socket and reports where it runs.
void startDetached(const std::vector<std::string>& argv, std::map<std::string, std::string> env,
                   const std::string& rdir, const Flags& flags, const Context& ctx) {
  std::string logDir = Paths::join({rdir, "vorn"});
  requirePrivateLogFolder(logDir);
  std::string log = Paths::join(
      {logDir, "server-" + std::to_string(static_cast<int64_t>(std::time(nullptr))) + ".log"});
  pid_t pid = spawnDetached(argv, env, log);
  std::optional<std::string> sock;
  {
    Waiting waiting(ctx.status, {"waiting for the headless host (pid " + std::to_string(pid) +
                                     ") to open its socket",
                                 std::chrono::seconds(comeUpSeconds), false});
    sock = waitForSocket(rdir, pid, std::chrono::seconds(comeUpSeconds));
  }
  if (!sock) {
    throw startError("the host (pid " + std::to_string(pid) + ") did not come up within " +
                     std::to_string(comeUpSeconds) + "s \u2014 see " + log);
  }
  // Someone may have put a socket where the host was to bind its own: report it only when the
  // process serving it is the one we started.
  try {
    Transport::requestFrom(pid, *sock, "GET", "/health");
  } catch (const TransportError& e) {
    throw startError("the socket " + *sock + " is not the host's (pid " + std::to_string(pid) +
                     "): " + e.description + " \u2014 see " + log);
  }
  if (flags.json) {
    JSON report = JSON::object({{"pid", JSON(static_cast<int64_t>(pid))},
                                {"socketPath", JSON(*sock)},
                                {"runtimeDir", JSON(rdir)},
                                {"log", JSON(log)}});
    ctx.writeOut(report.serialized(2) + "\n");
  } else {
    ctx.writeOut("vorn server " + std::to_string(pid) + " (headless) on " + *sock + "\nlog " + log +
                 "\n");
  }
}

}  // namespace

std::string runtimeDir(const Context& ctx) {
  return Paths::normalize(runtimeBase(ctx));
}

int makePrivateDirectories(const std::string& dir) {
  if (dir.empty()) return 0;
  if (::mkdir(dir.c_str(), 0700) != 0) {
    int error = errno;
    if (error == EEXIST) return Paths::isDirectory(dir) ? 0 : EEXIST;
    std::string parent = Paths::parent(dir);
    if (error != ENOENT || parent == dir) return error;
    if (int failed = makePrivateDirectories(parent)) return failed;
    if (::mkdir(dir.c_str(), 0700) != 0) {
      if (errno == EEXIST && Paths::isDirectory(dir)) return 0;  // made meanwhile by another
      return errno;
    }
  }
  // The umask may have taken bits away; the folder is the owner's alone, exactly.
  ::chmod(dir.c_str(), 0700);
  return 0;
}

void requirePrivateLogFolder(const std::string& logDir) {
  if (int error = makePrivateDirectories(logDir)) {
    throw startError("cannot create " + logDir + ": " + ::strerror(error));
  }
  struct stat st;
  if (::lstat(logDir.c_str(), &st) != 0) {
    throw startError("cannot create " + logDir + ": " + ::strerror(errno));
  }
  if (std::optional<std::string> problem = Trust::privateFolderProblem(st, Trust::self())) {
    throw untrusted("the log folder", logDir, *problem);
  }
}

pid_t spawnDetached(const std::vector<std::string>& argv,
                    const std::map<std::string, std::string>& env, const std::string& log) {
  std::string program = argv.empty() ? "" : argv[0];
  std::vector<std::string> pairs = environmentStrings(env);
  std::vector<char*> args = cStrings(argv);
  std::vector<char*> environment = cStrings(pairs);

  // The log is opened here, and checked, before anything is spawned.
  UniqueFd logFd(openLog(log, program));
  SpawnAttributes attributes;
  SpawnFileActions actions;
  int error = argv.empty() ? ENOENT : 0;
  if (error == 0 &&
      (!attributes.ready() || !actions.ready() || !attributes.addFlags(POSIX_SPAWN_SETSID))) {
    error = EINVAL;
  }
  if (error == 0) {
    error = ::posix_spawn_file_actions_addopen(actions.get(), 0, "/dev/null", O_RDONLY, 0);
  }
  if (error == 0) error = ::posix_spawn_file_actions_adddup2(actions.get(), logFd.get(), 1);
  if (error == 0) error = ::posix_spawn_file_actions_adddup2(actions.get(), 1, 2);
  // After the dup2s: the log's own descriptor is among those closed.
  if (error == 0 && !closeOtherDescriptors(attributes, actions)) error = EINVAL;
  pid_t pid = 0;
  if (error == 0) {
    error = ::posix_spawnp(&pid, args[0], actions.get(), attributes.get(), args.data(),
                           environment.data());
  }
  if (error != 0) throw startError("cannot run " + program + ": " + ::strerror(error));
  return pid;
}

std::optional<std::string> waitForSocket(const std::string& rdir, pid_t pid,
                                         std::chrono::milliseconds timeout) {
  std::string sock = Paths::join({rdir, "vorn", std::to_string(pid), "fs.sock"});
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) == pid) return std::nullopt;  // the host is gone
    struct stat st;
    if (::stat(sock.c_str(), &st) == 0) {
      try {
        if (Transport::request(sock, "GET", "/health").ok()) return sock;
      } catch (const TransportError&) {
        // not listening yet
      }
    }
    std::this_thread::sleep_for(socketPollInterval);
  }
  return std::nullopt;
}

Outcome serverStart(const Flags& flags, Context& ctx) {
  std::optional<std::string> dir = hostDirectory(flags, ctx);
  HeadlessHost host = enterBunScript(ctx, Scripts::headlessBundled, Scripts::headlessSource,
                                     "vorn server start", "headless host");
  std::string rdir = runtimeDir(ctx);
  std::vector<std::string> argv = hostArgv(host, ctx.env, dir);
  std::map<std::string, std::string> set = {{"XDG_RUNTIME_DIR", rdir}};
  std::vector<std::string> unset = hostUnsetVariables(host);

  if (!flags.has("--detach")) return Outcome::execHost(std::move(argv), set, unset);
  std::map<std::string, std::string> env = ctx.env;
  env["XDG_RUNTIME_DIR"] = rdir;
  for (const std::string& name : unset)
    env.erase(name);
  startDetached(argv, std::move(env), rdir, flags, ctx);
  return Outcome::exit(0);
}

}  // namespace vorn
