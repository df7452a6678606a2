// The command, diagnostics and nogo verbs, and the read handler they share with other nouns.
#pragma once

#include <string>

#include "core/flags.h"
#include "json/json.h"
#include "verbs/verbs.h"

namespace vorn {

// A read-only verb: GET `path` from every selected instance (or the selected ones) and print
// each reply. `label` is the command as the user typed it, for messages.
VerbHandler readVerb(std::string path, std::string label);

// The POST /command body: "id", then "args" when more words follow, then "confirmed" with --yes.
// The caller has checked that there is an id.
JSON commandRunBody(const Flags& flags);

// "/diagnostics", or "/diagnostics?source=" with the --source value encoded as one component.
std::string diagnosticsPath(const Flags& flags);

}  // namespace vorn
