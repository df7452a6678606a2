// The <file>[:line[:col]] target syntax of `file open`, `test run` and the path shorthand.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vorn {

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

// "<file>:<line>[:<col>]" split at its trailing numeric pieces; nothing when there is none,
// the file part is empty or a number does not fit. Line and column 0 are passed through:
// the callers decide what a 0 means.
std::optional<SplitPosition> splitPosition(std::string_view arg);
// The existing regular file that `arg` names, tried whole first and then without its
// position suffix; relative paths are taken against cwd.
std::optional<FileTarget> parseFileTarget(std::string_view arg, std::string_view cwd);

}  // namespace vorn
