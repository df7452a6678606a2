// The doctor's rows about where instances live: the runtime root, the support folders, the
// scan of the runtime root and each live instance.
#include <dirent.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "core/text.h"
#include "doctor/doctor.h"
#include "paths/paths.h"
#include "transport/transport.h"

namespace vorn {

namespace {

std::string octalMode(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%o", static_cast<unsigned>(mode & 0777));
  return text;
}

// The names in a folder, sorted, joined with ", "; "nothing" when it is empty.
std::string entryList(const std::string& dir) {
  std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(dir.c_str()), &::closedir);
  if (!listing) return std::string("entries that cannot be listed (") + ::strerror(errno) + ")";
  std::vector<std::string> names;
  while (dirent* entry = ::readdir(listing.get())) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(std::move(name));
  }
  if (names.empty()) return "nothing";
  std::sort(names.begin(), names.end());
  return joinWords(names, ", ");
}

}  // namespace

DoctorCheck Doctor::runtimeDirCheck() const {
  const std::string root = Instances{ctx}.runtimeRoot();
  const std::string* xdg = ctx.getenv("XDG_RUNTIME_DIR");
  const std::string source = xdg && !xdg->empty() ? "$XDG_RUNTIME_DIR" : "tmpdir";
  // An empty XDG_RUNTIME_DIR makes the root relative: it is where this command runs.
  const std::string examined = Paths::absolute(ctx.cwd, root);
  struct stat st;
  if (::lstat(examined.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return {"runtime.dir", "ok",
              root + " not created yet" + detailDash + "no instance has run (" + source + ")"};
    }
    return {"runtime.dir", "fail", root + " cannot be examined: " + ::strerror(errno)};
  }
  if (!S_ISDIR(st.st_mode)) return {"runtime.dir", "fail", root + " is not a directory"};
  if (st.st_uid != ::getuid()) {
    return {"runtime.dir", "fail",
            root + " owned by uid " + std::to_string(st.st_uid) + ", not you"};
  }
  if ((st.st_mode & 077) != 0) {
    return {"runtime.dir", "warn",
            root + " mode " + octalMode(st.st_mode) + " (expected 700; " + source + ")"};
  }
  return {"runtime.dir", "ok", root + " (mode " + octalMode(st.st_mode) + "; " + source + ")"};
}

DoctorCheck Doctor::supportDirCheck() const {
  const std::string current = supportDir();
  const std::string legacy = Paths::join({Paths::parent(current), "vorn"});
  struct stat old, now;
  if (::stat(legacy.c_str(), &old) != 0) return {"support.dir", "ok", current};
  // On a file system that ignores case the two names are one folder.
  if (::stat(current.c_str(), &now) == 0 && now.st_dev == old.st_dev && now.st_ino == old.st_ino) {
    return {"support.dir", "ok", current};
  }
  return {"support.dir", "warn",
          legacy + " still holds " + entryList(legacy) + " (newer copies in " + current +
              " win; delete it once checked)"};
}

std::vector<DoctorCheck> Doctor::scanChecks(const Scan& scan) {
  std::vector<DoctorCheck> rows;
  for (const StaleEntry& entry : scan.removed) {
    rows.push_back({"runtime.pruned", "ok", "removed dead-pid dir " + entry.dir});
  }
  for (const StaleEntry& entry : scan.stale) {
    rows.push_back(
        {"runtime.stale", "warn",
         entry.dir + " (" + entry.reason + ")" + detailDash + "run vorn instance prune"});
  }
  if (scan.live.empty()) {
    rows.push_back({"instances", "ok", "none running (vorn workspace open <dir> launches one)"});
  } else {
    std::string ids;
    for (const InstanceInfo& instance : scan.live)
      ids += (ids.empty() ? "" : ", ") + instance.id;
    rows.push_back({"instances", "ok", std::to_string(scan.live.size()) + " live: " + ids});
  }
  return rows;
}

DoctorCheck instanceRow(const InstanceInfo& instance, const JSON& health, const JSON& language) {
  const std::string name = "instance." + instance.id;
  const std::string folder = instance.workspaceName.empty() ? "No Folder" : instance.workspaceName;
  const JSON* ok = health.get("ok");
  if (!ok || !ok->isTrue()) {
    return {name, "fail",
            "pid " + std::to_string(instance.pid) + " \u00b7 " + folder + ": /health " +
                health.error().value_or("not ok")};
  }

  std::string languageText;
  if (std::optional<std::string> error = language.error()) {
    languageText = "language status: " + *error;
  } else {
    const JSON* id = language.get("language");
    languageText = id && id->string() ? std::string(*id->string()) : "language";
    const JSON* ready = language.get("ready");
    languageText += ready && ready->isTrue() ? " ready" : " not ready";
    const JSON* detail = language.get("detail");
    if (detail && detail->string() && !detail->string()->empty()) {
      languageText += " (";
      languageText += *detail->string();
      languageText += ")";
    }
  }

  const JSON* protocol = health.get("protocol");
  std::optional<double> number = protocol ? protocol->number() : std::nullopt;
  return {name, number && *number == 1 ? "ok" : "warn",
          "protocol " + (number ? JSON::formatNumber(*number) : std::string("?")) + " \u00b7 " +
              folder + " \u00b7 " + languageText};
}

DoctorCheck Doctor::instanceCheck(const InstanceInfo& instance) {
  JSON health = Transport::getJSON(instance.socketPath, "/health");
  const JSON* ok = health.get("ok");
  JSON language = ok && ok->isTrue() ? Transport::getJSON(instance.socketPath, "/language/status")
                                     : JSON::object();
  return instanceRow(instance, health, language);
}

}  // namespace vorn
