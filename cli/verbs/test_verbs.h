// `vorn test`: run, rerun, cancel and status of the editor's Go test runner.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/flags.h"
#include "json/json.h"

namespace vorn {

// What a `test run` argument asks for.
struct TestRunTarget {
  std::string path;                      // the body's "path"
  std::optional<int64_t> line;           // the body's "line"
  std::optional<std::string> ownerPath;  // the local path whose owner runs it; none when the
                                         // selector alone decides
  bool operator==(const TestRunTarget&) const = default;
};

// The argument as typed, for an instance on another host: "x/..." whole, "x:12" split into
// path and line, anything else whole. Touches no file system.
TestRunTarget foreignTestTarget(const std::string& arg);

// The argument resolved against cwd: a directory (optionally with "/..."), or an existing file
// with an optional line. Throws a usage error when it is neither.
TestRunTarget localTestTarget(const std::string& arg, const std::string& cwd);

// The POST /test body of `test run`: "path", "line", "cover", "wait", each only when it applies.
JSON testRunBody(const std::optional<TestRunTarget>& target, const Flags& flags);

// The POST /test body of `test rerun`; throws a usage error unless the argument is last|failed.
JSON testRerunBody(const Flags& flags);

}  // namespace vorn
