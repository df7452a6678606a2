#include "shell/completion.h"

#include "core/cli_error.h"
#include "core/text.h"
#include "shell/completion_model.h"

namespace vorn {

void printCompletion(const Flags& flags, Context& ctx) {
  const auto& scripts = completionScripts();
  auto script = flags.args.empty() ? scripts.end() : scripts.find(flags.args[0]);
  if (script == scripts.end()) {
    throw usageError("vorn shell-command completion: expected one of " +
                     joinWords(completionShells(), ", "));
  }
  ctx.writeOut(std::string(script->second) + "\n");
}

}  // namespace vorn
