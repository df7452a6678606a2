// `vorn shell-command completion bash|zsh|fish`: prints a completion script stored whole in the
// program. The scripts are generated at build time from the command table and the dev group's
// table; at run time only the choice of text is made.
#pragma once

#include <map>
#include <string_view>

#include "core/context.h"
#include "core/flags.h"

namespace vorn {

// Each shell's script, without a final newline. Defined by the generated source.
const std::map<std::string_view, std::string_view>& completionScripts();

// The `completion` verb: prints the script of the shell named by the first positional,
// followed by a newline; any other word, or none, is a usage error.
void printCompletion(const Flags& flags, Context& ctx);

}  // namespace vorn
