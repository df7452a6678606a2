#include "process/process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace vorn {

SpawnAttributes::SpawnAttributes() {
  if (::posix_spawnattr_init(&attr_) != 0) return;
  ready_ = true;
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  if (::posix_spawnattr_setsigdefault(&attr_, &defaults) != 0 || !addFlags(POSIX_SPAWN_SETSIGDEF)) {
    ::posix_spawnattr_destroy(&attr_);
    ready_ = false;
  }
}

SpawnAttributes::~SpawnAttributes() {
  if (ready_) ::posix_spawnattr_destroy(&attr_);
}

bool SpawnAttributes::addFlags(short flags) {
  flags_ = static_cast<short>(flags_ | flags);
  return ::posix_spawnattr_setflags(&attr_, flags_) == 0;
}

// The one platform difference of spawning: how a child is kept from inheriting descriptors.
bool closeOtherDescriptors(SpawnAttributes& attributes, SpawnFileActions& actions) {
#if defined(__APPLE__)
  // Only the descriptors named by the file actions survive the spawn there, so the standard
  // streams the actions leave alone (a captured child's stderr) are named here: without that the
  // child starts with them closed and its next open file takes their number.
  for (int fd = 0; fd <= 2; ++fd) {
    if (::posix_spawn_file_actions_addinherit_np(actions.get(), fd) != 0) return false;
  }
  return attributes.addFlags(POSIX_SPAWN_CLOEXEC_DEFAULT);
#elif defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  (void)attributes;
  return ::posix_spawn_file_actions_addclosefrom_np(actions.get(), 3) == 0;
#else
  // No way to say it to the spawn: mark every other descriptor of this process close-on-exec.
  (void)attributes;
  (void)actions;
  long limit = ::sysconf(_SC_OPEN_MAX);
  if (limit < 0 || limit > 65536) limit = 65536;
  for (int fd = 3; fd < limit; ++fd) {
    int flags = ::fcntl(fd, F_GETFD);
    if (flags >= 0) ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
  }
  return true;
#endif
}

std::vector<std::string> environmentStrings(const std::map<std::string, std::string>& env) {
  std::vector<std::string> pairs;
  pairs.reserve(env.size());
  for (const auto& [name, value] : env)
    pairs.push_back(name + "=" + value);
  return pairs;
}

std::vector<char*> cStrings(const std::vector<std::string>& words) {
  std::vector<char*> out;
  out.reserve(words.size() + 1);
  for (const std::string& word : words)
    out.push_back(const_cast<char*>(word.c_str()));
  out.push_back(nullptr);
  return out;
}

int32_t runProcess(const std::string& executable, const std::vector<std::string>& arguments) {
  std::vector<std::string> words = {executable};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv = cStrings(words);

  SpawnAttributes attributes;
  if (!attributes.ready()) return notStartedStatus;
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

}  // namespace vorn
