#include "doctor/doctor.h"

#include <sys/stat.h>
#include <unistd.h>

#include "core/cli_error.h"
#include "core/flags.h"
#include "core/text.h"
#include "paths/paths.h"

namespace vorn {

std::string Doctor::home() const {
  const std::string* home = ctx.getenv("HOME");
  return home ? *home : "";
}

std::string Doctor::supportDir() const {
  const std::string* vornHome = ctx.getenv("VORN_HOME");
  std::string base(vornHome ? trimBlanks(*vornHome) : std::string_view());
  if (base.empty()) base = home();
  return Paths::join({base, "Library/Application Support/Vorn"});
}

std::optional<std::string> Doctor::which(const std::string& name) const {
  const std::string* path = ctx.getenv("PATH");
  if (!path) return std::nullopt;
  size_t start = 0;
  while (start <= path->size()) {
    size_t colon = path->find(':', start);
    if (colon == std::string::npos) colon = path->size();
    std::string_view dir = std::string_view(*path).substr(start, colon - start);
    start = colon + 1;
    if (dir.empty()) continue;  // the current directory is never where we look for a tool
    std::string candidate = Paths::join({Paths::absolute(ctx.cwd, dir), name});
    if (Paths::isRegularFile(candidate) && ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

std::optional<std::string> Doctor::shimValue(std::string_view text, std::string_view key) {
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(at, end - at);
    at = end + 1;
    if (line.size() <= key.size() || line.substr(0, key.size()) != key || line[key.size()] != '=')
      continue;
    std::string_view value = trimBlanks(line.substr(key.size() + 1));
    if (value.size() >= 2 && value.front() == '"') {
      try {
        JSON decoded = JSON::parse(value);
        if (std::optional<std::string_view> s = decoded.string()) return std::string(*s);
      } catch (const JSONParseError&) {
      }
    }
    if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'') {
      return std::string(value.substr(1, value.size() - 2));
    }
    return std::string(value);
  }
  return std::nullopt;
}

std::vector<DoctorCheck> Doctor::run() const {
  std::vector<DoctorCheck> checks = {runtimeDirCheck(), supportDirCheck()};
  Scan scan = Instances{ctx}.scan(false);
  for (DoctorCheck& row : scanChecks(scan))
    checks.push_back(std::move(row));
  for (const InstanceInfo& instance : scan.live) {
    Waiting waiting(ctx.status, answerWait(waitingForAnswer(instance)));
    checks.push_back(instanceCheck(instance));
  }
  for (DoctorCheck& row : cliChecks())
    checks.push_back(std::move(row));
  for (DoctorCheck& row : packChecks())
    checks.push_back(std::move(row));
  return checks;
}

namespace {

size_t countStatus(const std::vector<DoctorCheck>& checks, std::string_view status) {
  size_t n = 0;
  for (const DoctorCheck& check : checks)
    n += check.status == status;
  return n;
}

}  // namespace

std::string doctorText(const std::vector<DoctorCheck>& checks) {
  size_t width = 0;
  for (const DoctorCheck& check : checks)
    width = std::max(width, charCount(check.name));
  std::string out;
  for (const DoctorCheck& check : checks) {
    out += "[";
    appendPadded(out, check.status, 4);
    out += "] ";
    appendPadded(out, check.name, width);
    out += "  " + check.detail + "\n";
  }
  out += "\n" + std::to_string(countStatus(checks, "fail")) + " failed, " +
         std::to_string(countStatus(checks, "warn")) + " warning(s).\n";
  return out;
}

std::string doctorJSON(const std::vector<DoctorCheck>& checks) {
  JSON::Array rows;
  rows.reserve(checks.size());
  for (const DoctorCheck& check : checks) {
    rows.push_back(JSON::object({{"name", JSON(check.name)},
                                 {"status", JSON(check.status)},
                                 {"detail", JSON(check.detail)}}));
  }
  return JSON::object(
             {{"ok", JSON(countStatus(checks, "fail") == 0)}, {"checks", JSON(std::move(rows))}})
             .serialized(2) +
         "\n";
}

std::map<std::string, Handler> doctorVerbs() {
  return {{"check", [](const Flags& flags, Context& ctx) {
             rejectExtraArguments(flags, 0, "doctor check");
             std::vector<DoctorCheck> checks = Doctor{ctx}.run();
             // A row may carry an instance's words: shown, never interpreted by the terminal.
             ctx.writeOut(flags.json ? doctorJSON(checks) : visibleControls(doctorText(checks)));
             // The rows say what failed; the exit status is all that is left to say.
             if (countStatus(checks, "fail") > 0) throw CliError{"", 1};
           }}};
}

}  // namespace vorn
