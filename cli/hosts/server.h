// `vorn server start`: the editor's headless host, in the foreground or detached.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/context.h"
#include "core/flags.h"
#include "core/outcome.h"

namespace vorn {

// The socket root handed to the host: XDG_RUNTIME_DIR whenever it is set (even empty), else a
// non-empty TMPDIR, else /tmp; normalised. The host makes its own vorn/<pid>/ below it.
std::string runtimeDir(const Context& ctx);

// Makes `dir` and its missing parents with mode 0700. The errno of the step that failed, or 0.
int makePrivateDirectories(const std::string& dir);

// The folder of the host logs, made private when missing; when it exists it must be a real
// directory of our own that no one else may write, or the log could be read, replaced or
// redirected. Throws CliError naming the folder.
void requirePrivateLogFolder(const std::string& logDir);

// Starts argv[0] (looked up on PATH) in a new session with exactly `env`, stdin from
// /dev/null and stdout and stderr appended to `log` (created 0600; never through a symbolic link,
// and only a file of our own with no other name). It inherits no other descriptor. Its pid;
// throws CliError when it cannot be started.
pid_t spawnDetached(const std::vector<std::string>& argv,
                    const std::map<std::string, std::string>& env, const std::string& log);

// Polls until <runtimeDir>/vorn/<pid>/fs.sock answers GET /health with a 2xx status: the
// socket path. Nothing once the timeout has passed, or at once when the child `pid` exited.
std::optional<std::string> waitForSocket(const std::string& runtimeDir, pid_t pid,
                                         std::chrono::milliseconds timeout);

// vorn server start [dir] [--detach]; throws CliError.
Outcome serverStart(const Flags& flags, Context& ctx);

}  // namespace vorn
