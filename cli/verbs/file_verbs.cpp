// `vorn file open|read`: a file at a position in the instance whose workspace holds it.
#include "core/text.h"
#include "paths/file_target.h"
#include "paths/paths.h"
#include "transport/transport.h"
#include "verbs/open.h"
#include "verbs/verbs.h"

namespace vorn {

namespace {

// Lines and columns count from 1; a 0 would leave the editor to guess, so it is refused here.
void requireOneBased(const TypedTarget& target, const std::string& word) {
  if ((target.line && *target.line == 0) || (target.col && *target.col == 0)) {
    throw usageError("vorn file open: no line or column 0 in " + word +
                     " \u2014 lines and columns count from 1");
  }
}

// The local file the target names, as an absolute path; refuses directories and missing files.
std::string existingFile(const TypedTarget& target, const std::string& cwd) {
  std::string file = Paths::absolute(cwd, target.path);
  if (Paths::isRegularFile(file)) return file;
  if (Paths::isDirectory(file)) {
    throw usageError("vorn file open: " + target.path + " is a directory (vorn workspace open)");
  }
  throw usageError("vorn file open: no such file: " + target.path);
}

// The path to hand to owner(): as typed, so that its messages speak the user's words, unless
// the typed form would resolve elsewhere than the file we found.
std::string ownerPath(const TypedTarget& target, const std::string& file) {
  if (target.path.rfind("/", 0) == 0) return target.path;
  return Paths::real(target.path) == Paths::real(file) ? target.path : file;
}

void fileOpen(const Flags& flags, Instances& instances) {
  const Context& ctx = instances.ctx;
  if (flags.args.empty()) throw usageError("vorn file open: missing file");
  if (flags.all) throw usageError("vorn file open: --all is not valid when opening a file");
  rejectExtraArguments(flags, 1, "file open");
  const std::string& word = flags.args[0];

  TypedTarget target = localTarget(word, ctx.cwd);
  InstanceInfo instance;
  std::string path;
  if (hasSelector(flags) || flags.sock) {
    requireOneBased(target, word);
    std::vector<InstanceInfo> found = instances.resolve(flags, true, true);
    if (found.empty()) throw CliError{"vorn file open: no instance matches " + selectorText(flags)};
    instance = found.front();
    if (instance.foreign) {
      // Local paths mean nothing on another host: the word goes as typed.
      target = remoteTarget(word);
      requireOneBased(target, word);
      path = target.path;
    } else {
      path = existingFile(target, ctx.cwd);
    }
  } else {
    path = existingFile(target, ctx.cwd);
    requireOneBased(target, word);
    instance = instances.owner(ownerPath(target, path), "file open");
  }

  JSON body = JSON::object({{"path", JSON(path)}});
  if (target.line) body.mutableObject()->push_back({"line", JSON(*target.line)});
  if (target.line && target.col) body.mutableObject()->push_back({"col", JSON(*target.col)});

  Reply reply;
  try {
    Waiting waiting(instances.ctx.status, answerWait(waitingForAnswer(instance)));
    reply = Transport::request(instance.socketPath, "POST", "/openFile", &body);
  } catch (const TransportError& error) {
    throw CliError{"vorn file open [" + instance.id + "]: " + error.description};
  }

  const JSON* ok = reply.body.get("ok");
  if (reply.ok() && ok && ok->isTrue()) {
    if (flags.json) {
      ctx.writeOut(reply.body.merging({{"instance", JSON(instance.id)}}, true).serialized(2) +
                   "\n");
    } else {
      ctx.writeOut(visibleControls(openedFileText(reply.body, instance.id)));
    }
    return;
  }
  std::optional<std::string> error = reply.body.error();
  if (!error || error->empty()) error = "openFile failed (" + std::to_string(reply.status) + ")";
  throw CliError{"vorn file open [" + instance.id + "]: " + *error};
}

void fileRead(const Flags& flags, Instances& instances) {
  if (flags.args.empty()) throw usageError("vorn file read: missing path");
  rejectExtraArguments(flags, 1, "file read");
  // Workspace-relative, so the path goes as typed; "/" and spaces are encoded too.
  std::string target = "/read?path=" + percentEncode(flags.args[0], componentSafe(), false);
  instances.readEach("GET", target, nullptr, flags, "file read");
}

}  // namespace

TypedTarget localTarget(const std::string& word, const std::string& cwd) {
  if (std::optional<FileTarget> found = parseFileTarget(word, cwd)) {
    if (!found->line) return TypedTarget{word, std::nullopt, std::nullopt};
    std::optional<SplitPosition> split = splitPosition(word);
    return TypedTarget{split->file, split->line, split->col};
  }
  // A directory (or anything else) of that exact name is what the user meant.
  if (Paths::isDirectory(Paths::absolute(cwd, word))) {
    return TypedTarget{word, std::nullopt, std::nullopt};
  }
  return remoteTarget(word);
}

TypedTarget remoteTarget(const std::string& word) {
  if (std::optional<SplitPosition> split = splitPosition(word)) {
    return TypedTarget{split->file, split->line, split->col};
  }
  return TypedTarget{word, std::nullopt, std::nullopt};
}

std::string openedFileText(const JSON& reply, const std::string& id) {
  return "Opened " + renderValue(reply.get("path")) + ":" + renderValue(reply.get("line")) + ":" +
         renderValue(reply.get("col")) + " on instance " + id + "\n";
}

VerbTable fileVerbs() {
  return {
      {"open", fileOpen},
      {"read", fileRead},
  };
}

}  // namespace vorn
