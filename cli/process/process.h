// Child processes: the one place that spawns and waits for them. Children are started without
// a shell, arguments passed as a vector, and always get the default SIGPIPE disposition back
// (the CLI itself ignores SIGPIPE).
#pragma once

#include <spawn.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vorn {

// The status of a program that could not be started at all, as shells report it.
inline constexpr int32_t notStartedStatus = 127;

// Spawn attributes that are destroyed on every path out of a scope. Built with SIGPIPE reset
// to its default in the child; `ready()` is false when the system refused.
class SpawnAttributes {
 public:
  SpawnAttributes();
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  ~SpawnAttributes();
  bool ready() const { return ready_; }
  // Adds flags (POSIX_SPAWN_SETSID, ...) to those already set; false when refused.
  bool addFlags(short flags);
  posix_spawnattr_t* get() { return &attr_; }

 private:
  posix_spawnattr_t attr_;
  short flags_ = 0;
  bool ready_ = false;
};

// Spawn file actions that are destroyed on every path out of a scope.
class SpawnFileActions {
 public:
  SpawnFileActions() { ready_ = ::posix_spawn_file_actions_init(&actions_) == 0; }
  SpawnFileActions(const SpawnFileActions&) = delete;
  SpawnFileActions& operator=(const SpawnFileActions&) = delete;
  ~SpawnFileActions() {
    if (ready_) ::posix_spawn_file_actions_destroy(&actions_);
  }
  bool ready() const { return ready_; }
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
  bool ready_ = false;
};

// Leaves the child only its standard streams (0, 1 and 2, as the file actions set them up or as
// inherited): nothing else this process holds or inherited reaches it, so a child that outlives
// the CLI keeps none of the caller's pipes open. False when the system refused.
bool closeOtherDescriptors(SpawnAttributes& attributes, SpawnFileActions& actions);

// argv as the NUL-terminated array of C strings that exec and spawn take; the pointers stay
// valid as long as `words` is alive and unchanged.
std::vector<char*> cStrings(const std::vector<std::string>& words);
// An environment as the NAME=value strings a child gets.
std::vector<std::string> environmentStrings(const std::map<std::string, std::string>& env);

// Runs a program directly (no shell) with inherited streams and environment, and waits for it.
// Its exit status; 128 + the signal when killed; 127 when it could not be started.
int32_t runProcess(const std::string& executable, const std::vector<std::string>& arguments);

}  // namespace vorn
