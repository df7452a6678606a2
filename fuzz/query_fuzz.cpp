// Percent-encoding and `searchParams`. Encoded text holds only safe bytes, "+" for a space
// when asked, and "%XX" in upper-case hexadecimal; decoding it gives the input back. A query
// of form pairs splits at "&" and "=" into exactly the pairs that went in.
#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <utility>
#include <vector>

#include "fuzz_check.h"
#include "instances/instances.h"

using namespace vorn;
using vorn::fuzz::check;

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;  // lower case is not what we write
}

// The text that `encoded` stands for; checks every byte on the way.
std::string decoded(std::string_view encoded, const ByteSet& safe, bool spaceAsPlus) {
  std::string out;
  for (size_t i = 0; i < encoded.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(encoded[i]);
    if (c == '%') {
      check(i + 2 < encoded.size(), "a % is followed by two digits", encoded);
      int hi = hexDigit(encoded[i + 1]), lo = hexDigit(encoded[i + 2]);
      check(hi >= 0 && lo >= 0, "a % is followed by two upper-case hex digits", encoded);
      out.push_back(static_cast<char>(hi * 16 + lo));
      i += 2;
    } else if (c == '+') {
      check(spaceAsPlus && !safe.test(c), "a + only stands for a space", encoded);
      out.push_back(' ');
    } else {
      check(safe.test(c), "only safe bytes are written as they are", encoded);
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

void checkEncoding(const std::string& text, const ByteSet& safe, bool spaceAsPlus) {
  std::string encoded = percentEncode(text, safe, spaceAsPlus);
  check(decoded(encoded, safe, spaceAsPlus) == text, "decoding gives the text back", encoded);
  size_t expected = 0;
  for (char c : text) {
    unsigned char b = static_cast<unsigned char>(c);
    expected += safe.test(b) || (spaceAsPlus && b == ' ') ? 1 : 3;
  }
  check(encoded.size() == expected, "each byte is written as one byte or as three", encoded);
}

void checkSearchParams(const std::vector<std::pair<std::string, std::string>>& pairs) {
  std::string query = searchParams(pairs);
  if (pairs.empty()) {
    check(query.empty(), "no pairs give an empty query", query);
    return;
  }
  std::vector<std::string> pieces = fuzz::split(query, '&');
  check(pieces.size() == pairs.size(), "one piece per pair", query);
  for (size_t i = 0; i < pieces.size(); ++i) {
    std::vector<std::string> sides = fuzz::split(pieces[i], '=');
    check(sides.size() == 2, "one = per pair", pieces[i]);
    check(decoded(sides[0], formSafe(), true) == pairs[i].first, "the key comes back", query);
    check(decoded(sides[1], formSafe(), true) == pairs[i].second, "the value comes back", query);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool setsAreRight = [] {
    check(componentSafe().count() == 71 && formSafe().count() == 66, "the safe sets' sizes");
    for (char c : std::string_view("&=+%#? /"))
      check(!componentSafe().test(static_cast<unsigned char>(c)) &&
                !formSafe().test(static_cast<unsigned char>(c)),
            "separators are never safe");
    return true;
  }();
  (void)setsAreRight;

  FuzzedDataProvider provider(data, size);
  std::vector<std::pair<std::string, std::string>> pairs;
  while (provider.remaining_bytes() > 0 && pairs.size() < 16) {
    std::string key = provider.ConsumeRandomLengthString(64);
    std::string value = provider.ConsumeRandomLengthString(256);
    pairs.emplace_back(std::move(key), std::move(value));
  }
  std::string whole(fuzz::text(data, size));
  for (bool plus : {false, true}) {
    checkEncoding(whole, componentSafe(), plus);
    checkEncoding(whole, formSafe(), plus);
  }
  checkSearchParams(pairs);
  return 0;
}
