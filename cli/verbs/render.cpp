#include "verbs/verbs.h"

namespace vorn {

std::string renderValue(const JSON* value) {
  if (!value) return "undefined";
  if (const std::string* text = value->string()) return *text;
  return value->serialized(0);
}

}  // namespace vorn
