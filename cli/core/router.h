// Top-level routing of one command line: version, dev hand-off, help, nouns, verbs, flags.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/context.h"
#include "core/flags.h"
#include "core/outcome.h"

namespace vorn {

using Handler = std::function<void(const Flags&, Context&)>;
using OutcomeHandler = std::function<Outcome(const Flags&, Context&)>;

// What the router can call; assembled above the router so that it never includes a verb.
struct Commands {
  std::map<std::string, std::map<std::string, Handler>> handlers;
  std::map<std::string, std::map<std::string, OutcomeHandler>> outcomeHandlers;
  std::function<void(const Flags&, Context&)> version;
  std::function<Outcome(const std::vector<std::string>&, Context&)> delegate;
};

namespace VornCLI {
// The whole run; never throws.
Outcome main(const std::vector<std::string>& args, Context& ctx, const Commands& commands);
Outcome run(const std::vector<std::string>& args, Context& ctx, const Commands& commands,
            bool& json);
Outcome dispatch(const std::vector<std::string>& args, Context& ctx, const Commands& commands,
                 bool& json);
}  // namespace VornCLI

// `vorn <dir>` and `vorn <file>[:line[:col]]` rewritten to workspace open / file open.
std::optional<std::vector<std::string>> pathShorthand(const std::vector<std::string>& args,
                                                      const Context& ctx);

}  // namespace vorn
