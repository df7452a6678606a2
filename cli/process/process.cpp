#include "process/process.h"

#include <errno.h>
#include <signal.h>
#include <sys/wait.h>

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
