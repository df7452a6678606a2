// `splitPosition` and `parseFileTarget` on any word, against a small folder of real files
// (one named with a colon, one that looks like a position, a folder). splitPosition must agree
// with a second, independent reading of the rules, and give back pieces that spell the word;
// parseFileTarget must name an existing regular file, the whole word when that is one, else
// the file part of the split.
#include <stdlib.h>
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "fuzz_check.h"
#include "paths/file_target.h"
#include "paths/paths.h"

using namespace vorn;
using vorn::fuzz::check;

namespace {

// A private folder with files whose names the dictionary knows, removed at exit.
struct Files {
  std::string dir;

  Files() {
    const char* tmp = ::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vorn-fuzz-XXXXXX";
    if (!::mkdtemp(pattern.data())) fuzz::broken("a private folder for the fuzz files");
    dir = Paths::real(pattern);
    for (const char* name : {"main.go", "a:1", "b:2:3", "12", "sub/x.go", "sub/7:8"}) {
      std::filesystem::create_directories(std::filesystem::path(dir + "/" + name).parent_path());
      std::ofstream(dir + "/" + name) << "x";
    }
    std::filesystem::create_directories(dir + "/d:5");
  }
  ~Files() {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }
};

bool digitsOnly(std::string_view s) {
  return !s.empty() && s.find_first_not_of("0123456789") == std::string_view::npos;
}

std::optional<int64_t> decimal(std::string_view s) {
  int64_t v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return v;
}

// The rules read from the right: peel off at most two numeric pieces after the last colons.
std::optional<SplitPosition> referenceSplit(std::string_view arg) {
  size_t last = arg.rfind(':');
  if (last == std::string_view::npos || !digitsOnly(arg.substr(last + 1))) return std::nullopt;
  std::string_view file = arg.substr(0, last);
  std::string_view lineText = arg.substr(last + 1);
  std::string_view colText;
  size_t before = file.rfind(':');
  if (before != std::string_view::npos && digitsOnly(file.substr(before + 1))) {
    colText = lineText;
    lineText = file.substr(before + 1);
    file = file.substr(0, before);
  } else if (before == std::string_view::npos && digitsOnly(file)) {
    return std::nullopt;  // "12:3": two numbers and no file
  }
  if (file.empty()) return std::nullopt;
  std::optional<int64_t> line = decimal(lineText);
  if (!line) return std::nullopt;
  std::optional<int64_t> col;
  if (!colText.empty()) {
    col = decimal(colText);
    if (!col) return std::nullopt;
  }
  return SplitPosition{std::string(file), *line, col};
}

void checkSplit(std::string_view arg, const std::optional<SplitPosition>& split) {
  std::optional<SplitPosition> expected = referenceSplit(arg);
  check(split == expected, "splitPosition agrees with the rules read from the right",
        std::string(arg));
  if (!split) return;
  check(!split->file.empty(), "the file part is not empty");
  check(split->line >= 0 && (!split->col || *split->col >= 0), "positions are not negative");
  std::string_view rest = arg.substr(split->file.size());
  check(arg.substr(0, split->file.size()) == split->file && !rest.empty() && rest[0] == ':',
        "the file part is the start of the word", std::string(arg));
}

void checkTarget(std::string_view arg, const std::string& cwd,
                 const std::optional<SplitPosition>& split) {
  std::optional<FileTarget> target = parseFileTarget(arg, cwd);
  std::string whole = Paths::absolute(cwd, arg);
  bool wholeIsFile = Paths::isRegularFile(whole);
  if (!target) {
    check(!wholeIsFile, "a word naming a file is a target", std::string(arg));
    check(!split || !Paths::isRegularFile(Paths::absolute(cwd, split->file)),
          "a split naming a file is a target", std::string(arg));
    return;
  }
  check(!target->file.empty() && target->file[0] == '/', "the file is absolute", target->file);
  check(Paths::normalize(target->file) == target->file, "the file is normalised", target->file);
  check(Paths::isRegularFile(target->file), "the file is a regular file", target->file);
  check(target->line || !target->col, "a column only with a line");
  if (wholeIsFile) {
    check(*target == FileTarget{whole, std::nullopt, std::nullopt}, "the whole word comes first",
          std::string(arg));
    return;
  }
  check(split.has_value(), "a target with a position comes from a split", std::string(arg));
  FileTarget expected{Paths::absolute(cwd, split->file), split->line, split->col};
  check(*target == expected, "the target is the split's file and position", std::string(arg));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Files files;
  std::string_view arg = fuzz::text(data, size);
  std::optional<SplitPosition> split = splitPosition(arg);
  checkSplit(arg, split);
  checkTarget(arg, files.dir, split);
  return 0;
}
