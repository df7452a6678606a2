#include "verbs/verbs.h"

namespace vorn {

// Numbers use the serializer's form: integral values print every digit without a fraction
// (up to 1e21, beyond which a script runtime also switches to exponent form).
std::string renderValue(const JSON* value) {
  if (!value) return "undefined";
  if (const std::string* text = value->string()) return *text;
  return value->serialized(0);
}

}  // namespace vorn
