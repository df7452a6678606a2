#include "core/text.h"

namespace vorn {

size_t charCount(std::string_view text) {
  size_t n = 0;
  for (unsigned char c : text) n += (c & 0xC0) != 0x80;
  return n;
}

void appendPadded(std::string& out, std::string_view text, size_t width) {
  out += text;
  size_t used = charCount(text);
  if (used < width) out.append(width - used, ' ');
}

}  // namespace vorn
