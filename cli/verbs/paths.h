// Small path routines on strings, and the <file>[:line[:col]] target syntax.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorn {

namespace Paths {
std::string normalize(std::string_view path);
std::string join(const std::vector<std::string_view>& parts);
std::string relative(std::string_view base, std::string_view path);
// The text before the last "/": "." without one, "/" when it is the first character.
std::string parent(std::string_view path);
// `path` made absolute against cwd (unless it begins with "/") and normalised.
std::string absolute(std::string_view cwd, std::string_view path);
bool isCheckout(const std::string& dir);
std::optional<std::string> checkout(std::string_view containing);
// realpath(3), or the path as it stands when that fails.
std::string real(const std::string& path);
bool isDirectory(const std::string& path);    // stat, following links
bool isRegularFile(const std::string& path);  // stat, following links
}  // namespace Paths

struct FileTarget {
  std::string file;
  std::optional<int64_t> line;
  std::optional<int64_t> col;
  bool operator==(const FileTarget&) const = default;
};

struct SplitPosition {
  std::string file;
  int64_t line;
  std::optional<int64_t> col;
  bool operator==(const SplitPosition&) const = default;
};

std::optional<SplitPosition> splitPosition(std::string_view arg);
std::optional<FileTarget> parseFileTarget(std::string_view arg, std::string_view cwd);

}  // namespace vorn
