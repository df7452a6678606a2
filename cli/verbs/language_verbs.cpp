// language status/hover/definition/type-definition. Positions go out 0-based exactly as typed.
#include "verbs/language_verbs.h"

#include <utility>

#include "core/cli_error.h"
#include "core/text.h"
#include "instances/instances.h"
#include "verbs/command_verbs.h"

namespace vorn {

JSON positionBody(const Flags& flags, const std::string& verb) {
  if (flags.args.size() < 3) {
    throw usageError("vorn language " + verb + ": needs <path> <line> <char> (0-based)");
  }
  std::optional<int64_t> line = parseSignedInteger(flags.args[1]);
  std::optional<int64_t> character = parseSignedInteger(flags.args[2]);
  if (!line || !character) {
    throw usageError("vorn language " + verb + ": <line> and <char> must be integers (0-based)");
  }
  // The path is the instance's to resolve: absolute, or relative to its workspace.
  return JSON::object(
      {{"path", JSON(flags.args[0])}, {"line", JSON(*line)}, {"character", JSON(*character)}});
}

VerbHandler positionQuery(std::string verb, std::string endpoint) {
  return [verb = std::move(verb), path = "/api/" + endpoint](const Flags& flags,
                                                             Instances& instances) {
    JSON body = positionBody(flags, verb);
    instances.readEach("POST", path, &body, flags, "language " + verb);
  };
}

VerbTable languageVerbs() {
  return {{"status", readVerb("/language/status", "language status")},
          {"hover", positionQuery("hover", "languageHover")},
          {"definition", positionQuery("definition", "languageDefinition")},
          {"type-definition", positionQuery("type-definition", "languageTypeDefinition")}};
}

}  // namespace vorn
