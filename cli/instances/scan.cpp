// Discovering instances: the runtime directory, the instance record, pruning dead folders.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <exception>

#include "core/text.h"
#include "instances/instances.h"
#include "paths/paths.h"
#include "paths/trust.h"
#include "process/zombie.h"
#include "transport/transport.h"
#include "transport/unique_fd.h"

namespace vorn {

namespace {

// A folder tree deeper than this is not one an instance made; removal gives up.
constexpr int maxRemoveDepth = 64;

// A directory stream that closes itself (and with it the descriptor it was opened on).
class UniqueDir {
 public:
  explicit UniqueDir(DIR* dir) : dir_(dir) {}
  UniqueDir(const UniqueDir&) = delete;
  UniqueDir& operator=(const UniqueDir&) = delete;
  ~UniqueDir() {
    if (dir_) ::closedir(dir_);
  }
  DIR* get() const { return dir_; }

 private:
  DIR* dir_;
};

const int openDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Empties the directory open on `fd`, never following a symbolic link: links are unlinked as
// names, and each subdirectory is opened relative to its parent with O_NOFOLLOW, so nothing
// outside the tree can be reached even if the tree changes while we work.
bool emptyDirectory(int fd, int depth) {
  if (depth > maxRemoveDepth) return false;
  int listFd = ::dup(fd);
  if (listFd < 0) return false;
  UniqueDir dir(::fdopendir(listFd));
  if (!dir.get()) {
    ::close(listFd);
    return false;
  }
  bool ok = true;
  while (true) {
    errno = 0;
    dirent* entry = ::readdir(dir.get());
    if (!entry) {
      if (errno != 0) ok = false;
      break;
    }
    if (isDotOrDotDot(entry->d_name)) continue;
    struct stat st;
    if (::fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) ok = false;
      continue;
    }
    if (S_ISDIR(st.st_mode)) {
      UniqueFd child(::openat(fd, entry->d_name, openDirFlags));
      if (child.get() < 0 || !emptyDirectory(child.get(), depth + 1)) {
        ok = false;
        continue;
      }
      if (::unlinkat(fd, entry->d_name, AT_REMOVEDIR) != 0 && errno != ENOENT) ok = false;
    } else if (::unlinkat(fd, entry->d_name, 0) != 0 && errno != ENOENT) {
      ok = false;
    }
  }
  return ok;
}

// Removes the folder `name` of the directory open on `parentFd` and everything in it, provided
// it is still the directory that was seen.
bool removeTreeAt(int parentFd, const std::string& name, const struct stat& seen) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
    return false;
  }
  UniqueFd self(::openat(parentFd, name.c_str(), openDirFlags));
  if (self.get() < 0) return false;
  struct stat st;
  if (::fstat(self.get(), &st) != 0 || st.st_dev != seen.st_dev || st.st_ino != seen.st_ino) {
    return false;  // replaced since we looked at it
  }
  if (!emptyDirectory(self.get(), 0)) return false;
  return ::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) == 0;
}

// The last component of a path ("" for none).
std::string lastName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Deletes <root>/<name> through the root's descriptor when it is plainly ours.
bool removeStaleDirAt(int rootFd, const std::string& root, const StaleEntry& entry) {
  if (Paths::parent(entry.dir) != root) return false;
  std::string name = lastName(entry.dir);
  struct stat st;
  if (name.empty() || ::fstatat(rootFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (!S_ISDIR(st.st_mode) || st.st_uid != ::getuid()) return false;
  return removeTreeAt(rootFd, name, st);
}

bool fitsProcessId(int64_t pid) {
  return pid >= INT32_MIN && pid <= INT32_MAX;
}

// Whether <root>/<rel> exists, looked up through the root's descriptor.
bool existsAt(int rootFd, const std::string& rel) {
  struct stat st;
  return ::fstatat(rootFd, rel.c_str(), &st, 0) == 0;
}

double nowSeconds() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

// Prune only folders past the age limit; one we cannot stat is not protected by its age.
bool oldEnoughToPrune(int rootFd, const std::string& name) {
  struct stat st;
  if (::fstatat(rootFd, name.c_str(), &st, 0) != 0) return true;
#if defined(__APPLE__)
  const struct timespec& mtime = st.st_mtimespec;
#else
  const struct timespec& mtime = st.st_mtim;
#endif
  return pastStaleAge(folderAgeMs(nowSeconds(), mtime.tv_sec, mtime.tv_nsec));
}

}  // namespace

std::optional<InstanceInfo> InstanceInfo::fromJSON(const JSON& json) {
  if (!json.members()) return std::nullopt;
  auto text = [&json](std::string_view key) -> std::optional<std::string> {
    const JSON* value = json.get(key);
    std::optional<std::string_view> s = value ? value->string() : std::nullopt;
    if (!s) return std::nullopt;
    return std::string(*s);
  };

  std::optional<std::string> id = text("id");
  const JSON* pidValue = json.get("pid");
  std::optional<int64_t> pid = pidValue ? pidValue->integer() : std::nullopt;
  std::optional<std::string> socketPath = text("socketPath");
  std::optional<std::string> workspace = text("workspace");
  std::optional<std::string> workspaceName = text("workspaceName");
  std::optional<std::string> vornRoot = text("vornRoot");
  if (!vornRoot) vornRoot = text("repoRoot");
  const JSON* startedValue = json.get("startedAt");
  std::optional<double> startedAt = startedValue ? startedValue->number() : std::nullopt;
  std::optional<std::string> platform = text("platform");
  std::optional<std::string> transport = text("transport");

  if (!id || !pid || !socketPath || !workspace || !workspaceName || !vornRoot || !startedAt ||
      !platform || !transport) {
    return std::nullopt;
  }
  if (*transport != "af_unix" || id->empty() || socketPath->empty()) return std::nullopt;

  InstanceInfo info;
  info.id = *id;
  info.pid = *pid;
  info.socketPath = *socketPath;
  info.reportedSocketPath = *socketPath;
  info.workspace = *workspace;
  info.workspaceName = *workspaceName;
  info.vornRoot = *vornRoot;
  info.startedAt = *startedAt;
  info.transport = "af_unix";
  info.platform = *platform;
  if (std::optional<std::string> mode = text("mode")) {
    if (*mode == "app" || *mode == "headless" || *mode == "remote") info.mode = *mode;
  }
  info.foreign = false;
  return info;
}

bool isForeignHost(const InstanceInfo& record, const std::string& dialled) {
  if (record.platform != "darwin") return true;
  return Paths::real(record.reportedSocketPath) != Paths::real(dialled);
}

std::optional<InstanceInfo> probeInstance(const std::string& sock) {
  try {
    Reply reply =
        Transport::request(sock, "GET", "/instance", nullptr, Transport::recordReplyBytes);
    if (!reply.ok()) return std::nullopt;
    std::optional<InstanceInfo> info = InstanceInfo::fromJSON(reply.body);
    if (!info) return std::nullopt;
    info->socketPath = sock;
    info->foreign = isForeignHost(*info, sock);
    return info;
  } catch (const TransportError&) {
    return std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

bool pidAlive(int64_t pid) {
  // No process can have an id outside the 32-bit range; such a number names nothing alive.
  if (!fitsProcessId(pid)) return false;
  pid_t id = static_cast<pid_t>(pid);
  if (::kill(id, 0) != 0) return errno == EPERM;
  // A zombie still answers kill(0) but will never serve again.
  return !isZombie(id);
}

double folderAgeMs(double nowSeconds, int64_t mtimeSeconds, int64_t mtimeNanoseconds) {
  return nowSeconds * 1000.0 - (static_cast<double>(mtimeSeconds) * 1000.0 +
                                static_cast<double>(mtimeNanoseconds) / 1000000.0);
}

bool pastStaleAge(double ageMs) {
  return ageMs > static_cast<double>(staleAgeLimitSeconds) * 1000.0;
}

std::string runtimeBase(const Context& ctx) {
  if (const std::string* xdg = ctx.getenv("XDG_RUNTIME_DIR")) return *xdg;
  if (const std::string* tmp = ctx.getenv("TMPDIR"); tmp && !tmp->empty()) return *tmp;
  return "/tmp";
}

std::string Instances::runtimeRoot() const {
  return Paths::join({runtimeBase(ctx), "vorn"});
}

bool Instances::removeStaleDir(const std::string& root, const StaleEntry& entry) {
  if (Paths::parent(entry.dir) != root) return false;
  UniqueFd rootFd(Trust::openRuntimeRoot(root, Trust::self()));
  if (rootFd.get() < 0) return false;
  return removeStaleDirAt(rootFd.get(), root, entry);
}

Scan Instances::scan(bool prune) const {
  Scan result;
  std::string root = runtimeRoot();

  // A root that is a link, or that someone else owns or may write, is treated as absent: no
  // socket in it is asked anything and nothing in it is deleted. Everything below goes through
  // this descriptor, so the name cannot be pointed elsewhere while we work.
  UniqueFd rootFd(Trust::openRuntimeRoot(root, Trust::self()));
  if (rootFd.get() < 0) return result;

  std::vector<std::string> names;
  {
    int listFd = ::dup(rootFd.get());
    UniqueDir dir(listFd < 0 ? nullptr : ::fdopendir(listFd));
    if (!dir.get()) {
      if (listFd >= 0) ::close(listFd);
      return result;
    }
    while (true) {
      errno = 0;
      dirent* entry = ::readdir(dir.get());
      if (!entry) {
        if (errno != 0) return Scan{};
        break;
      }
      if (!isDotOrDotDot(entry->d_name)) names.emplace_back(entry->d_name);
    }
  }

  for (const std::string& name : names) {
    std::optional<int64_t> pid = parseSignedInteger(name);
    // A name beyond the 32-bit range cannot be a process id, so it is not an instance folder.
    if (!pid || !fitsProcessId(*pid)) continue;
    std::string dir = Paths::join({root, name});
    std::string sock = Paths::join({dir, "fs.sock"});

    std::string reason;
    if (!pidAlive(*pid)) {
      reason = "dead-pid";
    } else if (!existsAt(rootFd.get(), name + "/fs.sock")) {
      reason = "no-sock";
    } else if (std::optional<InstanceInfo> info =
                   probeInstance(sock, ctx.status, "pid " + name + " (" + sock + ")")) {
      result.live.push_back(std::move(*info));
      continue;
    } else {
      reason = "unreachable";
    }

    StaleEntry entry{*pid, dir, sock, reason};
    bool tryDelete = reason == "dead-pid" || (prune && oldEnoughToPrune(rootFd.get(), name));
    if (tryDelete && removeStaleDirAt(rootFd.get(), root, entry)) {
      result.removed.push_back(std::move(entry));
    } else {
      result.stale.push_back(std::move(entry));
    }
  }

  std::stable_sort(result.live.begin(), result.live.end(),
                   [](const InstanceInfo& a, const InstanceInfo& b) { return a.pid < b.pid; });
  std::stable_sort(result.stale.begin(), result.stale.end(),
                   [](const StaleEntry& a, const StaleEntry& b) { return a.pid < b.pid; });
  return result;
}

}  // namespace vorn
