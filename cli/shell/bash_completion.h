// The bash completion script, and the zsh one that runs the same functions through zsh's
// bashcompinit. Both are written from the completion model at build time.
#pragma once

#include <string>

#include "shell/completion_model.h"

namespace vorn {

// Ends with the `complete` registration line, without a newline after it.
std::string bashScript(const CompletionModel& model);

// Works both when evaluated in ~/.zshrc and when compinit autoloads it as `_vorn` from $fpath.
std::string zshScript(const CompletionModel& model);

}  // namespace vorn
