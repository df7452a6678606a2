// command list/run, diagnostics list, nogo run: thin shells around the two fan-out loops.
#include "verbs/command_verbs.h"

#include <utility>

#include "core/cli_error.h"
#include "instances/instances.h"

namespace vorn {

VerbHandler readVerb(std::string path, std::string label) {
  return
      [path = std::move(path), label = std::move(label)](const Flags& flags, Instances& instances) {
        instances.readEach("GET", path, nullptr, flags, label);
      };
}

JSON commandRunBody(const Flags& flags) {
  JSON::Object body = {{"id", JSON(flags.args.front())}};
  if (flags.args.size() > 1) {
    // Arguments travel as strings, exactly as typed: the command decides what they mean.
    JSON::Array args(flags.args.begin() + 1, flags.args.end());
    body.emplace_back("args", JSON(std::move(args)));
  }
  // Only ever true: a command that asks first is confirmed by the key's presence.
  if (flags.has("--yes")) body.emplace_back("confirmed", JSON(true));
  return JSON(std::move(body));
}

std::string diagnosticsPath(const Flags& flags) {
  const std::string* source = flags.value("--source");
  if (!source) return "/diagnostics";
  return "/diagnostics?source=" + percentEncode(*source, componentSafe(), false);
}

namespace {

// Mutating verbs go to one instance, or to each of an explicit -a set.
std::vector<InstanceInfo> postTargets(const Flags& flags, Instances& instances,
                                      const std::string& label) {
  std::vector<InstanceInfo> targets = instances.resolve(flags, true, true);
  if (targets.empty()) throw CliError{"vorn " + label + ": no running instances"};
  return targets;
}

void commandRun(const Flags& flags, Instances& instances) {
  if (flags.args.empty()) {
    throw usageError("vorn command run: missing command id (vorn command list)");
  }
  std::vector<InstanceInfo> targets = postTargets(flags, instances, "command run");
  instances.postEach(targets, "/command", commandRunBody(flags), "command run", flags.json);
}

void diagnosticsList(const Flags& flags, Instances& instances) {
  instances.readEach("GET", diagnosticsPath(flags), nullptr, flags, "diagnostics list");
}

// Exit 1 on "ok": false comes from postEach's failure rule.
void nogoRun(const Flags& flags, Instances& instances) {
  std::vector<InstanceInfo> targets = postTargets(flags, instances, "nogo run");
  instances.postEach(targets, "/nogo", JSON::object(), "nogo run", flags.json);
}

}  // namespace

VerbTable commandVerbs() {
  return {{"list", readVerb("/command", "command list")}, {"run", commandRun}};
}

VerbTable diagnosticsVerbs() {
  return {{"list", diagnosticsList}};
}

VerbTable nogoVerbs() {
  return {{"run", nogoRun}};
}

}  // namespace vorn
