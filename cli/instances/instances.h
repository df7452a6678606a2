// The registry of live instances: runtime directory scan, selection, launch, fan-out.
#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/cli_error.h"
#include "core/context.h"
#include "core/flags.h"
#include "json/json.h"
#include "terminal/status_line.h"

namespace vorn {

struct InstanceInfo {
  std::string id;
  int64_t pid = 0;
  std::string socketPath;          // the path the CLI dialled
  std::string reportedSocketPath;  // the path the instance reports
  std::string workspace;
  std::string workspaceName;
  std::string vornRoot;
  double startedAt = 0;
  std::string transport = "af_unix";
  std::string platform;
  std::optional<std::string> mode;
  bool foreign = false;

  // The failable constructor from a GET /instance record.
  static std::optional<InstanceInfo> fromJSON(const JSON& json);
  bool operator==(const InstanceInfo&) const = default;
};

struct StaleEntry {
  int64_t pid = 0;
  std::string dir;
  std::string sock;
  std::string reason;  // "dead-pid", "no-sock", "unreachable"
  bool operator==(const StaleEntry&) const = default;
};

struct Scan {
  std::vector<InstanceInfo> live;
  std::vector<StaleEntry> stale;
  std::vector<StaleEntry> removed;
};

std::optional<InstanceInfo> probeInstance(const std::string& sock);
// The same, with the status line naming `who` ("pid 4242 (<sock>)") while the answer is awaited.
std::optional<InstanceInfo> probeInstance(const std::string& sock, StatusLine* status,
                                          const std::string& who);
bool pidAlive(int64_t pid);
bool isForeignHost(const InstanceInfo& record, const std::string& dialled);
bool hasSelector(const Flags& flags);
std::vector<InstanceInfo> matchInstances(const std::vector<InstanceInfo>& instances,
                                         const std::optional<std::string>& id,
                                         const std::optional<int64_t>& pid);
CliError ambiguous(const std::string& message, const std::vector<InstanceInfo>& instances,
                   const std::string& hint);

// The folder that holds the runtime root: XDG_RUNTIME_DIR whenever it is set (even empty),
// else a non-empty TMPDIR, else /tmp. Hosts are started with it as their XDG_RUNTIME_DIR.
std::string runtimeBase(const Context& ctx);

// A folder younger than this may belong to an instance that has not bound its socket yet.
inline constexpr int64_t staleAgeLimitSeconds = 10;
// The age of a folder in milliseconds: now (seconds since 1970) against its modification time.
double folderAgeMs(double nowSeconds, int64_t mtimeSeconds, int64_t mtimeNanoseconds);
// True when a folder of that age may be pruned (strictly older than the limit).
bool pastStaleAge(double ageMs);

// The status line's words for waits on instances. A wait for an answer is bounded by
// VORN_TIMEOUT when it is set; otherwise the line says that it can be.
WaitSpec answerWait(std::string what);
// "waiting for instance abc123 (pid 4242) to answer"
std::string waitingForAnswer(const InstanceInfo& instance);
// "1 of 3 answered; waiting for abc123, def456": at most three named, then "and 2 more".
std::string fanoutProgress(size_t answered, size_t total, const std::vector<std::string>& waiting);

// The status line of a fan-out: how many instances have answered, and which are awaited
// ("1 of 3 answered; waiting for abc123, def456"). answered() may be called from any thread.
class FanoutWait {
 public:
  FanoutWait(StatusLine* status, const std::vector<InstanceInfo>& targets);
  void answered(size_t index);

 private:
  std::string text() const;  // with the lock held, or before any job runs

  const std::vector<InstanceInfo>& targets_;
  std::mutex lock_;
  std::vector<bool> answered_;
  size_t count_ = 0;
  bool active_;
  Waiting waiting_;  // last: it is made from the others
};

// The text table of instances: ID, PID, MODE, WORKSPACE, SOCK (no trailing newline).
std::string instanceTable(const std::vector<InstanceInfo>& instances);

// Query-string encoding. A byte set holds the bytes that are copied unencoded.
using ByteSet = std::bitset<256>;
const ByteSet& componentSafe();  // letters, digits and - _ . ! ~ * ' ( )
const ByteSet& formSafe();       // letters, digits and - _ . *
std::string percentEncode(std::string_view text, const ByteSet& safe, bool spaceAsPlus);
// "k=v&k2=v2" with both sides form-encoded, in the given order; no leading "?".
std::string searchParams(const std::vector<std::pair<std::string, std::string>>& pairs);

// App launch. The bundle to launch: the first candidate that exists on disk.
std::optional<std::string> appBundle(const Context& ctx);
// The arguments of /usr/bin/open; without a bundle the app is named "Vorn-dev".
std::vector<std::string> openArguments(const std::optional<std::string>& bundle,
                                       const std::optional<std::string>& folder, bool forceNew,
                                       const std::map<std::string, std::string>& env,
                                       const std::string& cwd);

// The registry service handed to every verb.
struct Instances {
  Context& ctx;

  std::string runtimeRoot() const;
  Scan scan(bool prune) const;

  // Selection; all throw CliError.
  std::vector<InstanceInfo> resolve(const Flags& flags, bool requireOneWhenMany,
                                    bool allowAll) const;
  InstanceInfo one(const Flags& flags, const std::string& verb) const;
  std::optional<InstanceInfo> own() const;
  std::vector<InstanceInfo> implicitPool(const std::vector<InstanceInfo>& instances,
                                         const std::string& message) const;
  InstanceInfo owner(const std::string& path, const std::string& verb) const;
  bool waitForExit(const InstanceInfo& instance, double timeoutSeconds) const;

  // App launch; throws CliError. Only where canLaunchApp() holds (macOS).
  static bool canLaunchApp();
  void launchApp(const std::optional<std::string>& folder, bool forceNew,
                 const std::map<std::string, std::string>& env) const;

  // Fan-out; both throw CliError.
  void postEach(const std::vector<InstanceInfo>& targets, const std::string& path, const JSON& body,
                const std::string& label, bool json) const;
  void readEach(const std::string& method, const std::string& path, const JSON* body,
                const Flags& flags, const std::string& label) const;

  // Deletes <root>/<pid> when it is plainly ours: a child of a root we trust (Trust::
  // runtimeRootProblem), a real directory (never through a symbolic link), owned by us. True
  // when it is gone.
  static bool removeStaleDir(const std::string& root, const StaleEntry& entry);

 private:
  static bool workspaceContains(const InstanceInfo& instance, const std::string& path);
};

}  // namespace vorn
