// Small text helpers shared by the output code.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorn {

// User-perceived width: the number of code points (UTF-8 continuation bytes do not count).
size_t charCount(std::string_view text);
// text padded with spaces on the right to `width` characters.
void appendPadded(std::string& out, std::string_view text, size_t width);
// A base-10 signed 64-bit integer: an optional single "+" or "-", then one or more ASCII
// digits and nothing else. Nothing on any other text or on overflow.
std::optional<int64_t> parseSignedInteger(std::string_view text);
// text without the blanks (spaces, tabs, line ends) around it.
std::string_view trimBlanks(std::string_view text);
// Text from an instance made safe to show on a terminal: control characters (C0 but tab and
// line feed, DEL, and C1 U+0080 to U+009F) are written out visibly as \x1b or \u009b, so that no
// reply can move the cursor, set a title or rewrite what the user reads. Everything else, and
// invalid UTF-8, is kept as it is.
std::string visibleControls(std::string_view text);
// The words one after the other, with the separator between each two.
std::string joinWords(const std::vector<std::string>& words, std::string_view separator = " ");

}  // namespace vorn
