#include "paths/file_target.h"

#include <charconv>
#include <vector>

#include "paths/paths.h"

namespace vorn {

namespace {

bool isNumeric(std::string_view piece) {
  if (piece.empty()) return false;
  for (char c : piece) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

std::optional<int64_t> parseDecimal(std::string_view digits) {
  int64_t value = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<SplitPosition> splitPosition(std::string_view arg) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  while (true) {
    size_t colon = arg.find(':', start);
    if (colon == std::string_view::npos) {
      pieces.push_back(arg.substr(start));
      break;
    }
    pieces.push_back(arg.substr(start, colon - start));
    start = colon + 1;
  }
  if (pieces.size() < 2) return std::nullopt;

  size_t numeric = 0;
  while (numeric < 2 && numeric < pieces.size() && isNumeric(pieces[pieces.size() - 1 - numeric]))
    ++numeric;
  if (numeric == 0) return std::nullopt;

  // The file part is everything before the numeric pieces, colons included.
  size_t fileEnd = 0;
  for (size_t i = 0; i + numeric < pieces.size(); ++i)
    fileEnd += pieces[i].size() + 1;
  if (fileEnd == 0) return std::nullopt;
  std::string_view file = arg.substr(0, fileEnd - 1);
  if (file.empty()) return std::nullopt;

  // Zero is passed through on purpose: callers decide whether line or column 0 means anything.
  std::string_view first = pieces[pieces.size() - numeric];
  auto line = parseDecimal(first);
  if (!line) return std::nullopt;
  std::optional<int64_t> col;
  if (numeric == 2) {
    col = parseDecimal(pieces.back());
    if (!col) return std::nullopt;
  }
  return SplitPosition{std::string(file), *line, col};
}

std::optional<FileTarget> parseFileTarget(std::string_view arg, std::string_view cwd) {
  // The whole word first, so that a file whose own name contains ":" still opens.
  std::string whole = Paths::absolute(cwd, arg);
  if (Paths::isRegularFile(whole)) return FileTarget{std::move(whole), std::nullopt, std::nullopt};

  auto split = splitPosition(arg);
  if (!split) return std::nullopt;
  std::string file = Paths::absolute(cwd, split->file);
  if (!Paths::isRegularFile(file)) return std::nullopt;
  return FileTarget{std::move(file), split->line, split->col};
}

}  // namespace vorn
