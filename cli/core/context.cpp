#include "core/context.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <vector>

#if defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

namespace vorn {

namespace {

// The path the platform reports for the running program, before symlinks are resolved.
std::string reportedExecutable() {
#if defined(__APPLE__)
  uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::vector<char> buffer(size + 1, '\0');
  if (_NSGetExecutablePath(buffer.data(), &size) != 0) return "";
  return std::string(buffer.data());
#else
  return "/proc/self/exe";
#endif
}

std::string resolvedExecutable() {
  std::string reported = reportedExecutable();
  if (reported.empty()) return "";
  char resolved[PATH_MAX];
  if (::realpath(reported.c_str(), resolved)) return resolved;
  return reported;
}

std::string currentDirectory() {
  std::vector<char> buffer(PATH_MAX);
  while (!::getcwd(buffer.data(), buffer.size())) {
    if (errno != ERANGE) return ".";
    buffer.resize(buffer.size() * 2);
  }
  return buffer.data();
}

}  // namespace

Context processContext(char** environ) {
  Context ctx;
  for (char** entry = environ; entry && *entry; ++entry) {
    std::string_view pair(*entry);
    size_t eq = pair.find('=');
    if (eq == std::string_view::npos) continue;
    ctx.env.emplace(std::string(pair.substr(0, eq)), std::string(pair.substr(eq + 1)));
  }
  ctx.cwd = currentDirectory();
  ctx.executable = resolvedExecutable();
  ctx.writeOut = [](std::string_view text) { emit(1, text); };
  ctx.writeErr = [](std::string_view text) { emit(2, text); };
  return ctx;
}

}  // namespace vorn
