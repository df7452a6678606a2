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

size_t charCount(std::string_view text) {
  size_t count = 0;
  for (char c : text)
    count += isContinuation(static_cast<unsigned char>(c)) ? 0 : 1;
  return count;
}

// The first `count` characters of the text.
std::string_view head(std::string_view text, size_t count) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (isContinuation(static_cast<unsigned char>(text[i]))) continue;
    if (count-- == 0) return text.substr(0, i);
  }
  return text;
}

// The last `count` characters of the text.
std::string_view tail(std::string_view text, size_t count) {
  size_t total = charCount(text);
  if (count >= total) return text;
  size_t skip = total - count;
  for (size_t i = 0; i < text.size(); ++i) {
    if (isContinuation(static_cast<unsigned char>(text[i]))) continue;
    if (skip-- == 0) return text.substr(i);
  }
  return {};
}

// Below this many characters for what is waited for, the VORN_TIMEOUT advice makes room.
constexpr size_t minimumWhat = 30;

// The text cut to `room` characters by taking out its middle ("pid 42 (/tmp/.../fs.sock)").
std::string elided(const std::string& text, size_t room) {
  if (charCount(text) <= room) return text;
  if (room <= 3) return std::string(head(text, room));
  size_t keep = room - 3;
  size_t front = (keep + 1) / 2;
  return std::string(head(text, front)) + "..." + std::string(tail(text, keep - front));
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

std::string line(const WaitSpec& wait, std::chrono::milliseconds elapsed, size_t columns) {
  std::string what = printable(wait.what);
  std::string time = " (" + tenths(elapsed);
  if (wait.limit) time += " of " + seconds(*wait.limit);
  time += ") - Ctrl-C to stop";
  std::string advice =
      wait.timeoutHint && !wait.limit ? ", VORN_TIMEOUT=<seconds> to bound waits" : "";

  // What is waited for gives way first (its middle, where a long socket path is), then the
  // advice; the time and Ctrl-C stay as long as the terminal has room for them.
  const size_t room = columns > 1 ? columns - 1 : 0;
  const size_t fixed = charCount("vorn: ") + charCount(time);
  auto fits = [&](const std::string& middle, const std::string& extra) {
    return fixed + charCount(middle) + charCount(extra) <= room;
  };
  if (!fits(what, advice)) {
    size_t roomForWhat = room > fixed + charCount(advice) ? room - fixed - charCount(advice) : 0;
    if (roomForWhat < minimumWhat) advice.clear();
    roomForWhat = room > fixed + charCount(advice) ? room - fixed - charCount(advice) : 0;
    what = elided(what, roomForWhat);
  }
  return fitted("vorn: " + what + time + advice, columns);
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
