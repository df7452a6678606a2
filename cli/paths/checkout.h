// Which source checkout of the editor an invocation belongs to.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace vorn {

// The checkout containing `cwd`; else the one containing the directory of `executable` (when
// that path is absolute, so a CLI built inside a checkout finds it from anywhere); else
// VORN_REPO_ROOT from `env` when it names a checkout. The current directory always wins.
std::optional<std::string> checkoutRoot(const std::string& cwd, const std::string& executable,
                                        const std::map<std::string, std::string>& env);

}  // namespace vorn
