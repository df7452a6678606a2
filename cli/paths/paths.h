// Small path routines on strings, and the marks of a source checkout.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "paths/trust.h"

namespace vorn {

namespace Paths {
// The checkout's command-line script entry, relative to the checkout root (run with Bun).
inline constexpr std::string_view checkoutScriptEntry = "src/cli/vorn.ts";

// Collapses "//" and ".", resolves ".." lexically; an absolute path never climbs above "/".
std::string normalize(std::string_view path);
// Non-empty parts joined with "/", then normalised.
std::string join(const std::vector<std::string_view>& parts);
// The path from `base` to `path` ("..", then the rest); equal paths give "".
std::string relative(std::string_view base, std::string_view path);
// The text before the last "/": "." without one, "/" when it is the first character.
std::string parent(std::string_view path);
// `path` made absolute against cwd (unless it begins with "/") and normalised.
std::string absolute(std::string_view cwd, std::string_view path);
// False inside an application bundle; else MODULE.bazel, tools/go.pin and the script entry
// must all be regular files, and the folder and those files must belong to `self` or root and
// be writable by no one else (Trust::checkoutPartProblem).
bool isCheckout(const std::string& dir, uid_t self = Trust::self());
// The nearest checkout at or above `containing`, walking up with parent(); a folder that is
// not a checkout we trust is passed over.
std::optional<std::string> checkout(std::string_view containing, uid_t self = Trust::self());
// realpath(3), or the path as it stands when that fails.
std::string real(const std::string& path);
bool isDirectory(const std::string& path);    // stat, following links
bool isRegularFile(const std::string& path);  // stat, following links
// The whole content of a file, or nothing when it cannot be read.
std::optional<std::string> readFile(const std::string& path);
}  // namespace Paths

}  // namespace vorn
