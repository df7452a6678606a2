// The `vorn dev` hand-over to the checkout's CLI script, and what to say when an exec fails.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/context.h"
#include "core/outcome.h"

namespace vorn {

// `vorn dev <words...>` becomes `bun <root>/src/cli/vorn.ts dev <words...>`; throws CliError.
Outcome delegate(const Context& ctx, const std::vector<std::string>& args,
                 const std::string& label);
// What to print when replacing the process with `program` failed with `error`.
std::string execFailure(const std::string& program, int error,
                        const std::optional<std::string>& root);

}  // namespace vorn
