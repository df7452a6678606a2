#include "verbs/verbs.h"

namespace vorn {

// Numbers use the serializer's form: integral values print every digit without a fraction
// (up to 1e21, beyond which a script runtime also switches to exponent form).
std::string renderValue(const JSON* value) {
  if (!value) return "undefined";
  if (std::optional<std::string_view> text = value->string()) return std::string(*text);
  return value->serialized(0);
}

}  // namespace vorn
