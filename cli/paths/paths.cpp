#include "paths/paths.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

namespace vorn {

namespace {

// Components of `path` between slashes, empty ones dropped.
std::vector<std::string_view> components(std::string_view path) {
  std::vector<std::string_view> out;
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string_view::npos) slash = path.size();
    if (slash > start) out.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  return out;
}

std::string joinWithSlash(const std::vector<std::string_view>& parts, bool leadingSlash) {
  size_t size = leadingSlash ? 1 : 0;
  for (auto part : parts)
    size += part.size() + 1;
  std::string out;
  out.reserve(size);
  if (leadingSlash) out.push_back('/');
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out.push_back('/');
    out.append(parts[i]);
  }
  return out;
}

bool statMode(const std::string& path, mode_t type) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  return (st.st_mode & S_IFMT) == type;
}

}  // namespace

namespace Paths {

std::string normalize(std::string_view path) {
  bool isAbsolute = !path.empty() && path.front() == '/';
  std::vector<std::string_view> kept;
  for (auto part : components(path)) {
    if (part == ".") continue;
    if (part == "..") {
      if (!kept.empty() && kept.back() != "..") {
        kept.pop_back();
      } else if (!isAbsolute) {
        kept.push_back(part);
      }
      continue;
    }
    kept.push_back(part);
  }
  return joinWithSlash(kept, isAbsolute);
}

std::string join(const std::vector<std::string_view>& parts) {
  std::vector<std::string_view> nonEmpty;
  nonEmpty.reserve(parts.size());
  for (auto part : parts) {
    if (!part.empty()) nonEmpty.push_back(part);
  }
  return normalize(joinWithSlash(nonEmpty, false));
}

std::string relative(std::string_view base, std::string_view path) {
  auto from = components(base);
  auto to = components(path);
  size_t common = 0;
  while (common < from.size() && common < to.size() && from[common] == to[common])
    ++common;
  std::vector<std::string_view> out(from.size() - common, "..");
  out.insert(out.end(), to.begin() + common, to.end());
  return joinWithSlash(out, false);
}

std::string parent(std::string_view path) {
  size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  if (slash == 0) return "/";
  return std::string(path.substr(0, slash));
}

std::string absolute(std::string_view cwd, std::string_view path) {
  if (!path.empty() && path.front() == '/') return normalize(path);
  std::string joined;
  joined.reserve(cwd.size() + 1 + path.size());
  joined.append(cwd);
  joined.push_back('/');
  joined.append(path);
  return normalize(joined);
}

bool isCheckout(const std::string& dir, uid_t self) {
  // A folder inside an installed app bundle may carry the same files, but is never a checkout.
  if (dir.find(".app/Contents") != std::string::npos) return false;
  const std::string markers[] = {join({dir, "MODULE.bazel"}), join({dir, "tools/go.pin"}),
                                 join({dir, checkoutScriptEntry})};
  for (const std::string& marker : markers) {
    if (!isRegularFile(marker)) return false;
  }
  // Its scripts are run as the user: a checkout that someone else owns, or could have
  // written, is passed over as if it were none.
  if (!Trust::trustedCheckoutPart(dir, self)) return false;
  for (const std::string& marker : markers) {
    if (!Trust::trustedCheckoutPart(marker, self)) return false;
  }
  return true;
}

std::optional<std::string> checkout(std::string_view containing, uid_t self) {
  std::string p = normalize(containing);
  if (isCheckout(p, self)) return p;
  while (true) {
    std::string up = parent(p);
    if (up == p) return std::nullopt;
    p = std::move(up);
    if (isCheckout(p, self)) return p;
  }
}

std::string real(const std::string& path) {
  std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                       &std::free);
  if (!resolved) return path;
  return std::string(resolved.get());
}

std::optional<std::string> readFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string out;
  char buffer[65536];
  while (true) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return std::nullopt;  // a directory (EISDIR) or an I/O error
    }
    if (n == 0) break;
    out.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return out;
}

bool isDirectory(const std::string& path) {
  return statMode(path, S_IFDIR);
}

bool isRegularFile(const std::string& path) {
  return statMode(path, S_IFREG);
}

}  // namespace Paths

}  // namespace vorn
