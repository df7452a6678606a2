// The JSON parser as a round trip. Whatever parses serializes to text that parses back to an
// equal value and serializes to the same text again, and to the text of the same value built by
// hand; the reformatting writer gives exactly the text of parse-then-serialize, whole or in
// blocks at a depth, whether or not the text is known to be valid UTF-8; and text that does
// not parse fails the same way in every reader.
#include <cmath>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "json/block_writer.h"
#include "json/json.h"

using namespace vorn;
using vorn::fuzz::check;

namespace {

// The value with each scalar (all but arrays and objects) replaced by what `scalar` makes of it.
template <typename Scalar>
JSON mapScalars(const JSON& value, const Scalar& scalar) {
  if (value.kind() == JSON::Kind::array) {
    JSON::Array out;
    for (const JSON& element : value.list())
      out.push_back(mapScalars(element, scalar));
    return JSON(std::move(out));
  }
  if (const JSON::Object* members = value.members()) {
    JSON::Object out;
    for (const auto& [key, member] : *members)
      out.emplace_back(key, mapScalars(member, scalar));
    return JSON(std::move(out));
  }
  return scalar(value);
}

// The value as serializing it shows it: a number beyond the double range (read as infinity)
// is written as null.
JSON asWritten(const JSON& value) {
  return mapScalars(value, [](const JSON& v) {
    std::optional<double> n = v.number();
    return n && !std::isfinite(*n) ? JSON() : v;
  });
}

// The same value built by hand: strings made from their bytes, so none carries what the reader
// saw of its text.
JSON rebuilt(const JSON& value) {
  return mapScalars(value, [](const JSON& v) {
    std::optional<std::string_view> s = v.string();
    return s ? JSON(std::string(*s)) : v;
  });
}

// Every failure names one of the parser's problems and the offset, which lies in the input;
// running out of input is reported at its end.
void checkFailure(const std::string& message, std::string_view input) {
  static const char* const problems[] = {"unexpected trailing data",
                                         "nesting too deep",
                                         "unexpected end",
                                         "unterminated string",
                                         "unterminated array",
                                         "unterminated object",
                                         "expected , or ]",
                                         "expected , or }",
                                         "expected a key",
                                         "expected :",
                                         "bad literal",
                                         "bad number",
                                         "bad \\u escape"};
  size_t at = message.rfind(" at offset ");
  check(at != std::string::npos, "a parse error ends with its offset", message);
  std::string_view problem = std::string_view(message).substr(0, at);
  bool known = false;
  for (const char* p : problems)
    known = known || problem == p;
  check(known, "a parse error names a known problem", message);
  std::string digits = message.substr(at + 11);
  check(!digits.empty() && digits.find_first_not_of("0123456789") == std::string::npos,
        "the offset is a decimal number", message);
  size_t offset = std::stoull(digits);
  check(offset <= input.size(), "the offset lies within the input", message);
  if (problem == "unexpected end" || problem.starts_with("unterminated")) {
    check(offset == input.size(), "running out of input is reported at its end", message);
  }
}

std::optional<std::string> parseFailure(std::string_view text, std::optional<JSON>& value) {
  try {
    value = JSON::parse(text);
    return std::nullopt;
  } catch (const JSONParseError& e) {
    return e.message;
  }
}

// The writer that hands text on in blocks, at the depth a reply stands in a fan-out's rows:
// the blocks joined are the value written at that depth, and text that does not parse hands
// nothing on.
void checkBlocks(std::string_view input, const std::optional<JSON>& value,
                 const std::optional<std::string>& failure, TextBytes bytes) {
  constexpr int indent = 2, depth = 3;
  std::string joined;
  BlockWriter out([&](std::string_view block) { joined += block; }, 16);
  try {
    JSON::reformatTo(input, indent, depth, out, bytes);
    out.flush();
  } catch (const JSONParseError& e) {
    check(failure == e.message, "the block writer fails exactly as the parser does", e.message);
    check(joined.empty() && out.text().empty(), "text that does not parse hands nothing on");
    return;
  }
  check(!failure, "the block writer reads what the parser reads");
  std::string expected;
  value->write(expected, indent, depth);
  check(joined == expected, "the blocks are the value written at its depth",
        joined + "\n---\n" + expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input = fuzz::text(data, size);
  std::optional<JSON> value;
  std::optional<std::string> failure = parseFailure(input, value);
  if (failure) checkFailure(*failure, input);
  checkBlocks(input, value, failure, TextBytes::unchecked);
  // Text known to be valid UTF-8 (as a reply is) reads the same without checking its strings.
  if (isValidUTF8(input)) {
    checkBlocks(input, value, failure, TextBytes::validUTF8);
    if (!failure) {
      check(JSON::parse(input, TextBytes::validUTF8) == *value, "valid text reads the same unchecked");
      check(JSON::parse(input, TextBytes::validUTF8).serialized(0) == value->serialized(0),
            "valid text read unchecked prints the same");
    }
  }

  for (int indent : {0, 2}) {
    std::optional<std::string> reformatted, reformatFailure;
    try {
      reformatted = JSON::reformat(input, indent);
    } catch (const JSONParseError& e) {
      reformatFailure = e.message;
    }
    if (failure) {
      check(reformatFailure == failure, "the writer fails exactly as the parser does",
            *failure + " / " + reformatFailure.value_or("<no failure>"));
      continue;
    }
    check(reformatted.has_value(), "the writer reads what the parser reads", *reformatFailure);

    std::string serialized = value->serialized(indent);
    check(*reformatted == serialized, "the writer gives the text of parse-then-serialize",
          *reformatted + "\n---\n" + serialized);
    check(isValidUTF8(serialized), "serialized text is valid UTF-8", serialized);
    check(rebuilt(*value).serialized(indent) == serialized,
          "a read value prints as the same value built by hand", serialized);

    std::optional<JSON> back;
    std::optional<std::string> backFailure = parseFailure(serialized, back);
    check(!backFailure, "serialized text parses", backFailure.value_or("") + "\n" + serialized);
    check(*back == asWritten(*value), "serialized text parses back to an equal value", serialized);
    check(back->serialized(indent) == serialized, "serializing is a fixed point", serialized);
  }
  return 0;
}
