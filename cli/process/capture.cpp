#include "process/capture.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "process/process.h"

namespace vorn {

namespace {

// A descriptor that closes itself, and can be closed early.
class OwnedFd {
 public:
  explicit OwnedFd(int fd = -1) : fd_(fd) {}
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  ~OwnedFd() { close(); }
  int get() const { return fd_; }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// The same pipe end at a number of 3 or more, close-on-exec. When the CLI runs with a standard
// stream closed, pipe() may hand out 0, 1 or 2, and a dup2 onto the same number in the child
// would keep close-on-exec and leave the child without its output.
int aboveStandardStreams(int fd) {
  int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
  ::close(fd);
  return moved;
}

// How long to wait for output before checking whether the child has exited.
constexpr int pollMilliseconds = 100;

// Reads the pipe into `out` as described in the header; true when the child was reaped here.
bool readOutput(int fd, pid_t child, size_t limit, Captured& out, int& waitStatus) {
  bool exited = false;
  char buffer[65536];
  while (true) {
    pollfd ready{fd, POLLIN, 0};
    int n = ::poll(&ready, 1, exited ? 0 : pollMilliseconds);
    if (n < 0) {
      if (errno == EINTR) continue;
      return exited;
    }
    if (n == 0) {
      // Nothing to read: stop once the child is gone (whoever still holds the pipe).
      if (exited) return true;
      exited = ::waitpid(child, &waitStatus, WNOHANG) == child;
      continue;
    }
    ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) return exited;
    if (out.output.size() + static_cast<size_t>(got) > limit) {
      out.output.append(buffer, limit - out.output.size());
      out.overflow = true;
      return exited;
    }
    out.output.append(buffer, static_cast<size_t>(got));
  }
}

}  // namespace

Captured captureOutput(const std::string& program, const std::vector<std::string>& argv,
                       const std::string& cwd, const std::map<std::string, std::string>& env,
                       size_t limit) {
  Captured result;
  auto notStarted = [&](int error) {
    result.startError = error;
    result.status = notStartedStatus;
    return result;
  };

  int ends[2];
  if (::pipe(ends) != 0) return notStarted(errno);
  OwnedFd readEnd(aboveStandardStreams(ends[0]));
  OwnedFd writeEnd(aboveStandardStreams(ends[1]));
  if (readEnd.get() < 0 || writeEnd.get() < 0) return notStarted(EMFILE);

  SpawnAttributes attributes;
  SpawnFileActions actions;
  if (!attributes.ready() || !actions.ready()) return notStarted(ENOMEM);
  if (::posix_spawn_file_actions_addopen(actions.get(), 0, "/dev/null", O_RDONLY, 0) != 0 ||
      ::posix_spawn_file_actions_adddup2(actions.get(), writeEnd.get(), 1) != 0 ||
      ::posix_spawn_file_actions_addchdir_np(actions.get(), cwd.c_str()) != 0 ||
      // After the dup2: the pipe's writing end has a number above the standard streams.
      !closeOtherDescriptors(attributes, actions)) {
    return notStarted(ENOMEM);
  }

  std::vector<std::string> words = argv.empty() ? std::vector<std::string>{program} : argv;
  std::vector<std::string> assignments = environmentStrings(env);
  std::vector<char*> cArgv = cStrings(words);
  std::vector<char*> cEnv = cStrings(assignments);

  pid_t child = 0;
  int spawned = ::posix_spawn(&child, program.c_str(), actions.get(), attributes.get(),
                              cArgv.data(), cEnv.data());
  if (spawned != 0) return notStarted(spawned);
  writeEnd.close();  // the child holds the only writing end now, so its exit ends the stream

  ::fcntl(readEnd.get(), F_SETFL, ::fcntl(readEnd.get(), F_GETFL) | O_NONBLOCK);
  int waitStatus = 0;
  bool reaped = readOutput(readEnd.get(), child, limit, result, waitStatus);
  readEnd.close();  // a child still printing past the limit gets SIGPIPE
  while (!reaped) {
    if (::waitpid(child, &waitStatus, 0) == child) break;
    if (errno != EINTR) {
      result.status = notStartedStatus;  // its end cannot be known (no child to wait for)
      return result;
    }
  }

  if (WIFEXITED(waitStatus)) {
    result.status = WEXITSTATUS(waitStatus);
  } else if (WIFSIGNALED(waitStatus)) {
    result.signal = WTERMSIG(waitStatus);
    result.status = 128 + result.signal;
  }
  return result;
}

}  // namespace vorn
