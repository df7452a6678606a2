// `vorn remote ssh`: remote development on another machine, through a window of the app or
// the remote session runner (a Bun script) in the foreground.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/context.h"
#include "core/flags.h"
#include "core/outcome.h"
#include "hosts/bun_script.h"

namespace vorn {

// [ssh://][user@]host[:path] as far as the CLI checks it: not empty, not beginning with ":",
// "@" or "/", and free of blanks, tabs and newlines. The rest is left to ssh and the runner.
bool looksLikeSshTarget(std::string_view text);

// bun <entry> <target> [--ssh-config FILE] [--json]; no edition condition.
std::vector<std::string> tunnelArgv(const HeadlessHost& host, const std::string& target,
                                    const std::optional<std::string>& sshConfig, bool json);

// What a launched window is told: VORN_REMOTE_SSH, and VORN_SSH_CONFIG with a config file.
std::map<std::string, std::string> windowEnvironment(const std::string& target,
                                                     const std::optional<std::string>& sshConfig);

// vorn remote ssh <[user@]host[:path]> [--no-window] [--ssh-config FILE]; throws CliError.
Outcome remoteSsh(const Flags& flags, Context& ctx);

}  // namespace vorn
