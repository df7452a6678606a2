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

// A base-10 signed 64-bit integer: an optional single "+" or "-", then one or more ASCII
// digits and nothing else. Nothing on any other text or on overflow.
std::optional<int64_t> parseSignedInteger(std::string_view text);

// The body {"path", "line", "character"} of a position query; throws the verb's usage errors.
JSON positionBody(const Flags& flags, const std::string& verb);

// The handler of `vorn language <verb> <path> <line> <char>`: POST /api/<endpoint> through
// the read fan-out.
VerbHandler positionQuery(std::string verb, std::string endpoint);

}  // namespace vorn
