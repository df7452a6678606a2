// `vorn search run`: Find in Files in one instance, printed as path:line:col: preview.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core/flags.h"
#include "json/json.h"

namespace vorn {

using QueryPairs = std::vector<std::pair<std::string, std::string>>;

// The query pairs in their fixed order: q, regex, case, word, include, exclude, max.
// The caller has checked that there is a pattern.
QueryPairs searchPairs(const Flags& flags);

// One "path:line:col: preview" line per match of the reply, in reply order.
std::string searchLines(const JSON& body);

// "<matchCount> matches in <fileCount> files (<engine>)", the truncation note when the cap cut
// the results, and a line feed.
std::string searchSummary(const JSON& body);

}  // namespace vorn
