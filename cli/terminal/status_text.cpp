#include "terminal/status_text.h"

namespace vorn {

namespace StatusText {

namespace {

// The length of the UTF-8 sequence that starts with `lead`; 0 for a byte that cannot start one.
size_t sequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

bool isContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

}  // namespace

std::string seconds(std::chrono::milliseconds duration) {
  long long ms = duration.count() < 0 ? 0 : static_cast<long long>(duration.count());
  std::string text = std::to_string(ms / 1000);
  long long fraction = ms % 1000;
  if (fraction != 0) {
    std::string digits = std::to_string(fraction + 1000).substr(1);  // three digits
    while (digits.back() == '0')
      digits.pop_back();
    text += "." + digits;
  }
  return text + "s";
}

std::string tenths(std::chrono::milliseconds duration) {
  long long ms = duration.count() < 0 ? 0 : static_cast<long long>(duration.count());
  return std::to_string(ms / 1000) + "." + std::to_string(ms / 100 % 10) + "s";
}

std::string line(const WaitSpec& wait, std::chrono::milliseconds elapsed) {
  std::string text = "vorn: " + printable(wait.what) + " (" + tenths(elapsed);
  if (wait.limit) text += " of " + seconds(*wait.limit);
  text += ") - Ctrl-C to stop";
  if (wait.timeoutHint && !wait.limit) text += ", VORN_TIMEOUT=<seconds> to bound waits";
  return text;
}

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    unsigned char lead = static_cast<unsigned char>(text[i]);
    size_t length = sequenceLength(lead);
    bool whole = length > 0 && i + length <= text.size();
    for (size_t k = 1; whole && k < length; ++k)
      whole = isContinuation(static_cast<unsigned char>(text[i + k]));
    if (!whole) {
      out.push_back('?');
      ++i;
      continue;
    }
    // C0 controls, DEL and the C1 controls (U+0080 to U+009F, two bytes C2 80 to C2 9F).
    bool control = (length == 1 && (lead < 0x20 || lead == 0x7F)) ||
                   (length == 2 && lead == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0);
    if (control) {
      out.push_back('?');
    } else {
      out.append(text.substr(i, length));
    }
    i += length;
  }
  return out;
}

std::string fitted(std::string_view line, size_t columns) {
  size_t room = columns > 1 ? columns - 1 : 0;
  size_t count = 0;
  for (size_t i = 0; i < line.size(); ++i) {
    if (isContinuation(static_cast<unsigned char>(line[i]))) continue;
    if (count == room) return std::string(line.substr(0, i));
    ++count;
  }
  return std::string(line);
}

}  // namespace StatusText
}  // namespace vorn
