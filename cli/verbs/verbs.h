// The product verbs, one table per noun. A handler reads its Flags, talks to instances
// through Instances and prints through its Context; failures are thrown as CliError.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "core/flags.h"
#include "instances/instances.h"
#include "json/json.h"

namespace vorn {

using VerbHandler = std::function<void(const Flags&, Instances&)>;
using VerbTable = std::map<std::string, VerbHandler>;

VerbTable instanceVerbs();
VerbTable workspaceVerbs();
VerbTable fileVerbs();
VerbTable commandVerbs();
VerbTable diagnosticsVerbs();
VerbTable nogoVerbs();
VerbTable searchVerbs();
VerbTable testVerbs();
VerbTable languageVerbs();

// `vorn version`: the CLI line and each instance's bridge protocol.
void printVersion(const Flags& flags, Instances& instances);

// A reply value as a script template would print it: a missing key is "undefined",
// null "null", numbers without a needless fraction, arrays and objects as compact JSON.
std::string renderValue(const JSON* value);

}  // namespace vorn
