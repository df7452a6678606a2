#include "core/text.h"

#include <limits>

namespace vorn {

size_t charCount(std::string_view text) {
  size_t n = 0;
  for (unsigned char c : text)
    n += (c & 0xC0) != 0x80;
  return n;
}

void appendPadded(std::string& out, std::string_view text, size_t width) {
  out += text;
  size_t used = charCount(text);
  if (used < width) out.append(width - used, ' ');
}

std::optional<int64_t> parseSignedInteger(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  // Accumulated as a negative number so that the most negative value fits too.
  constexpr int64_t lowest = std::numeric_limits<int64_t>::min();
  int64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    int digit = c - '0';
    if (value < (lowest + digit) / 10) return std::nullopt;
    value = value * 10 - digit;
  }
  if (negative) return value;
  if (value == lowest) return std::nullopt;
  return -value;
}

std::string_view trimBlanks(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n\f\v";
  size_t begin = text.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

std::string joinWords(const std::vector<std::string>& words, std::string_view separator) {
  std::string out;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i) out += separator;
    out += words[i];
  }
  return out;
}

std::string visibleControls(std::string_view text) {
  static const char hex[] = "0123456789abcdef";
  auto isControl = [](unsigned char c) { return (c < 0x20 && c != '\t' && c != '\n') || c == 0x7f; };
  // The common case, text without any, is one pass and one copy.
  size_t first = 0;
  for (; first < text.size(); ++first) {
    unsigned char c = static_cast<unsigned char>(text[first]);
    if (isControl(c)) break;
    if (c == 0xc2 && first + 1 < text.size() &&
        (static_cast<unsigned char>(text[first + 1]) & 0xe0) == 0x80) {
      break;
    }
  }
  if (first == text.size()) return std::string(text);
  std::string out(text.substr(0, first));
  out.reserve(text.size() + 16);
  for (size_t i = first; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (isControl(c)) {
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 0x0f];
    } else if (c == 0xc2 && i + 1 < text.size() &&
               (static_cast<unsigned char>(text[i + 1]) & 0xe0) == 0x80) {
      // U+0080 to U+009F, encoded as C2 80 to C2 9F.
      unsigned char low = static_cast<unsigned char>(text[++i]);
      out += "\\u00";
      out += hex[low >> 4];
      out += hex[low & 0x0f];
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

}  // namespace vorn
