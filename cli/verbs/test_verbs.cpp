// test run/rerun/cancel/status. The instance runs the tests; the CLI turns a target into a
// body, picks the instance that owns it and posts.
#include "verbs/test_verbs.h"

#include <utility>
#include <vector>

#include "core/cli_error.h"
#include "instances/instances.h"
#include "paths/file_target.h"
#include "paths/paths.h"
#include "verbs/command_verbs.h"
#include "verbs/verbs.h"

namespace vorn {

namespace {

constexpr std::string_view recursiveSuffix = "/...";

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

}  // namespace

TestRunTarget foreignTestTarget(const std::string& arg) {
  if (endsWith(arg, recursiveSuffix)) return {arg, std::nullopt, std::nullopt};
  if (std::optional<SplitPosition> split = splitPosition(arg)) {
    return {split->file, split->line, std::nullopt};
  }
  return {arg, std::nullopt, std::nullopt};
}

TestRunTarget localTestTarget(const std::string& arg, const std::string& cwd) {
  std::string rest = arg;
  bool recursive = endsWith(rest, recursiveSuffix);
  if (recursive) {
    rest.resize(rest.size() - recursiveSuffix.size());
    if (rest.empty()) rest = ".";
  }
  std::string dir = Paths::absolute(cwd, rest);
  if (Paths::isDirectory(dir)) {
    std::string path = dir;
    // "/" already ends in a slash; "//..." would name nothing.
    if (recursive) path += dir == "/" ? std::string("...") : std::string(recursiveSuffix);
    return {std::move(path), std::nullopt, dir};
  }
  // Which tests a file or a line selects is the instance's call; a column means nothing here.
  if (std::optional<FileTarget> file = parseFileTarget(rest, cwd)) {
    return {file->file, file->line, file->file};
  }
  throw usageError("vorn test run: no such file or directory: " + arg);
}

JSON testRunBody(const std::optional<TestRunTarget>& target, const Flags& flags) {
  JSON::Object body;
  if (target) {
    body.emplace_back("path", JSON(target->path));
    if (target->line) body.emplace_back("line", JSON(*target->line));
  }
  if (flags.has("--cover")) body.emplace_back("cover", JSON(true));
  if (flags.has("--no-wait")) body.emplace_back("wait", JSON(false));
  return JSON(std::move(body));
}

JSON testRerunBody(const Flags& flags) {
  if (flags.args.empty() || (flags.args[0] != "last" && flags.args[0] != "failed")) {
    throw usageError("vorn test rerun: needs last|failed");
  }
  JSON::Object body = {{"rerun", JSON(flags.args[0])}};
  if (flags.has("--no-wait")) body.emplace_back("wait", JSON(false));
  return JSON(std::move(body));
}

namespace {

std::vector<InstanceInfo> requireSome(std::vector<InstanceInfo> targets, const std::string& label) {
  if (targets.empty()) throw CliError{"vorn " + label + ": no running instances"};
  return targets;
}

// The instances a test request goes to: the selector's (or the implicit one) when there is no
// path or the user chose, else the one instance whose workspace holds the path.
std::vector<InstanceInfo> testTargets(const Flags& flags, const Instances& instances,
                                      const std::optional<std::string>& path,
                                      const std::string& label) {
  if (!path || hasSelector(flags)) {
    return requireSome(instances.resolve(flags, true, true), label);
  }
  return {instances.owner(*path, label)};
}

void testRun(const Flags& flags, Instances& instances) {
  std::optional<TestRunTarget> target;
  // Set when a selector was resolved up front; reused so the runtime directory is scanned once.
  std::optional<std::vector<InstanceInfo>> selected;
  if (!flags.args.empty()) {
    const std::string& arg = flags.args.front();
    if (hasSelector(flags) && !flags.all) {
      selected = instances.resolve(flags, true, true);
      // Local paths mean nothing on another host: send the argument as typed.
      if (!selected->empty() && selected->front().foreign) target = foreignTestTarget(arg);
    }
    if (!target) target = localTestTarget(arg, instances.ctx.cwd);
  }
  JSON body = testRunBody(target, flags);
  std::vector<InstanceInfo> targets =
      selected
          ? requireSome(std::move(*selected), "test run")
          : testTargets(flags, instances, target ? target->ownerPath : std::nullopt, "test run");
  instances.postEach(targets, "/test", body, "test run", flags.json);
}

void testRerun(const Flags& flags, Instances& instances) {
  JSON body = testRerunBody(flags);
  std::vector<InstanceInfo> targets =
      requireSome(instances.resolve(flags, true, true), "test rerun");
  instances.postEach(targets, "/test", body, "test rerun", flags.json);
}

void testCancel(const Flags& flags, Instances& instances) {
  std::vector<InstanceInfo> targets =
      requireSome(instances.resolve(flags, true, true), "test cancel");
  instances.postEach(targets, "/test/cancel", JSON::object(), "test cancel", flags.json);
}

}  // namespace

VerbTable testVerbs() {
  return {{"run", testRun},
          {"rerun", testRerun},
          {"cancel", testCancel},
          {"status", readVerb("/test", "test status")}};
}

}  // namespace vorn
