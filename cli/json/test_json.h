// Helpers the JSON tests share: short ways to build containers, the message of a parse failure,
// and the text of U+FFFD.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "json/json.h"

namespace vorn {

inline JSON obj(JSON::Object o) {
  return JSON::object(std::move(o));
}
inline JSON arr(JSON::Array a) {
  return JSON::array(std::move(a));
}

// The message of the parse failure, or "" when the text parses.
inline std::string parseError(std::string_view text) {
  try {
    JSON::parse(text);
  } catch (const JSONParseError& e) {
    return e.message;
  }
  return "";
}

// The replacement character, as UTF-8.
inline const std::string kFFFD = "\xEF\xBF\xBD";

}  // namespace vorn
