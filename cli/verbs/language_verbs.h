// `vorn language`: the language service's status and three position queries.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/flags.h"
#include "json/json.h"
#include "verbs/verbs.h"

namespace vorn {

// The body {"path", "line", "character"} of a position query; throws the verb's usage errors.
JSON positionBody(const Flags& flags, const std::string& verb);

// The handler of `vorn language <verb> <path> <line> <char>`: POST /api/<endpoint> through
// the read fan-out.
VerbHandler positionQuery(std::string verb, std::string endpoint);

}  // namespace vorn
