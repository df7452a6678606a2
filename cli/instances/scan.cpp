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

// Removes `dir` and everything in it, provided it is still the directory that lstat saw.
bool removeTree(const std::string& dir, const struct stat& seen) {
  std::string parentDir = Paths::parent(dir);
  size_t slash = dir.rfind('/');
  std::string name = slash == std::string::npos ? dir : dir.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") return false;

  UniqueFd parent(::open(parentDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (parent.get() < 0) return false;
  UniqueFd self(::openat(parent.get(), name.c_str(), openDirFlags));
  if (self.get() < 0) return false;
  struct stat st;
  if (::fstat(self.get(), &st) != 0 || st.st_dev != seen.st_dev || st.st_ino != seen.st_ino) {
    return false;  // replaced since we looked at it
  }
  if (!emptyDirectory(self.get(), 0)) return false;
  return ::unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR) == 0;
}

bool fitsProcessId(int64_t pid) {
  return pid >= INT32_MIN && pid <= INT32_MAX;
}

bool pathExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

double nowSeconds() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

// Prune only folders past the age limit; one we cannot stat is not protected by its age.
bool oldEnoughToPrune(const std::string& dir) {
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0) return true;
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
  std::string stat = Paths::readFile("/proc/" + std::to_string(id) + "/stat").value_or("");
  if (stat.empty()) return true;
  size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return true;
  return stat[close + 2] != 'Z';
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
  struct stat st;
  if (::lstat(entry.dir.c_str(), &st) != 0) return false;
  if (!S_ISDIR(st.st_mode) || st.st_uid != ::getuid()) return false;
  return removeTree(entry.dir, st);
}

Scan Instances::scan(bool prune) const {
  Scan result;
  std::string root = runtimeRoot();

  std::vector<std::string> names;
  {
    UniqueDir dir(::opendir(root.c_str()));
    if (!dir.get()) return result;
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
    } else if (!pathExists(sock)) {
      reason = "no-sock";
    } else if (std::optional<InstanceInfo> info = probeInstance(sock)) {
      result.live.push_back(std::move(*info));
      continue;
    } else {
      reason = "unreachable";
    }

    StaleEntry entry{*pid, dir, sock, reason};
    bool tryDelete = reason == "dead-pid" || (prune && oldEnoughToPrune(dir));
    if (tryDelete && removeStaleDir(root, entry)) {
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
