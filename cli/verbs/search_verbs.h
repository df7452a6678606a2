// `vorn search run`: Find in Files in one instance, printed as path:line:col: preview.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/flags.h"
#include "json/json.h"

namespace vorn {

using QueryPairs = std::vector<std::pair<std::string, std::string>>;

// The query pairs in their fixed order: q, regex, case, word, include, exclude, max.
// The caller has checked that there is a pattern.
QueryPairs searchPairs(const Flags& flags);

// What the text form shows of a search reply.
struct SearchListing {
  std::string lines;  // one "path:line:col: preview" line per match, in reply order
  // The last value of each of these top-level keys, when there is one.
  std::optional<JSON> matchCount, fileCount, engine, limitHit, error;
};

// Reads the listing from the reply text in one pass; throws JSONParseError when it is not JSON.
SearchListing readSearchReply(std::string_view text);

// "<matchCount> matches in <fileCount> files (<engine>)", the truncation note when the cap cut
// the results, and a line feed.
std::string searchSummary(const SearchListing& listing);

}  // namespace vorn
