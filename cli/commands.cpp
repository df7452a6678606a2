#include "commands.h"

#include "core/command_table.h"
#include "doctor/doctor.h"
#include "hosts/delegate.h"
#include "hosts/remote.h"
#include "hosts/server.h"
#include "instances/instances.h"
#include "shell/completion.h"
#include "shell/shim.h"
#include "verbs/verbs.h"

namespace vorn {

namespace {

// Verb handlers take the registry service; the router knows only Flags and Context.
std::map<std::string, Handler> adapt(const VerbTable& verbs) {
  std::map<std::string, Handler> out;
  for (const auto& entry : verbs) {
    // Named copy: older clang cannot capture a structured binding.
    const auto& handler = entry.second;
    out[entry.first] = [handler](const Flags& flags, Context& ctx) {
      Instances instances{ctx};
      handler(flags, instances);
    };
  }
  return out;
}

// The shim's verbs and the completion verb share the noun.
std::map<std::string, Handler> shellCommandVerbs() {
  std::map<std::string, Handler> verbs = shimVerbs();
  verbs["completion"] = printCompletion;
  return verbs;
}

Commands buildCommands() {
  Commands commands;
  commands.handlers = {
      {"instance", adapt(instanceVerbs())},
      {"workspace", adapt(workspaceVerbs())},
      {"file", adapt(fileVerbs())},
      {"command", adapt(commandVerbs())},
      {"diagnostics", adapt(diagnosticsVerbs())},
      {"nogo", adapt(nogoVerbs())},
      {"search", adapt(searchVerbs())},
      {"test", adapt(testVerbs())},
      {"language", adapt(languageVerbs())},
      {"shell-command", shellCommandVerbs()},
      {"doctor", doctorVerbs()},
  };
  commands.outcomeHandlers = {{"server", {{"start", serverStart}}},
                              {"remote", {{"ssh", remoteSsh}}}};
  commands.version = [](const Flags& flags, Context& ctx) {
    Instances instances{ctx};
    printVersion(flags, instances);
  };
  commands.delegate = [](const std::vector<std::string>& words, Context& ctx) {
    // The checkout's script CLI is the whole CLI, so it gets the "dev" back in front.
    std::vector<std::string> args = {"dev"};
    args.insert(args.end(), words.begin(), words.end());
    return delegate(ctx, args, "dev");
  };
  return commands;
}

}  // namespace

const Commands& commands() {
  static const Commands table = buildCommands();
  return table;
}

}  // namespace vorn
