// `vorn doctor check`: one row per finding about everything the CLI depends on (the runtime
// directory, the support folders, the live instances, how vorn is installed, the language
// toolchains), without needing a running instance. Only a "fail" row makes the command fail.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/context.h"
#include "core/router.h"
#include "instances/instances.h"
#include "json/json.h"
#include "process/capture.h"
#include "shell/shim.h"

namespace vorn {

struct DoctorCheck {
  std::string name;    // dotted: "runtime.dir", "instance.<id>", ...
  std::string status;  // "ok", "warn" or "fail"
  std::string detail;  // one line for people
  bool operator==(const DoctorCheck&) const = default;
};

// The doctor-packs script's output is a few rows; more than this is not read.
inline constexpr size_t packOutputLimit = 1 << 20;
// Between what a row found and the way forward it names.
inline constexpr const char* detailDash = " \u2014 ";

struct Doctor {
  Context& ctx;

  std::string home() const;
  // The app's support folder: VORN_HOME (trimmed; when blank, HOME) joined with
  // "Library/Application Support/Vorn".
  std::string supportDir() const;
  // The first executable file called `name` in the directories of PATH, in order.
  std::optional<std::string> which(const std::string& name) const;
  // The value of a KEY=value line of a shim; a JSON string literal is decoded.
  static std::optional<std::string> shimValue(std::string_view text, std::string_view key);

  // Every row, in order: runtime dir, support dir, scan rows, one per instance, the CLI's
  // installation, the language toolchains.
  std::vector<DoctorCheck> run() const;

  DoctorCheck runtimeDirCheck() const;
  DoctorCheck supportDirCheck() const;
  // runtime.pruned, runtime.stale and the instances summary for one scan.
  static std::vector<DoctorCheck> scanChecks(const Scan& scan);
  // Asks the instance for /health and /language/status.
  static DoctorCheck instanceCheck(const InstanceInfo& instance);
  // cli.repo, cli.bun, cli.brew, cli.shim.
  std::vector<DoctorCheck> cliChecks() const;
  DoctorCheck shimCheck() const;
  // The same for a shim and a Homebrew link already looked up.
  DoctorCheck shimCheck(const ShellCommand& shell, const std::optional<BrewLink>& brew) const;
  // The rows of the checkout's (or the app's) doctor-packs script, or one "languages" warning.
  std::vector<DoctorCheck> packChecks() const;
};

// The instance row from the two replies (language is ignored when health is not ok).
DoctorCheck instanceRow(const InstanceInfo& instance, const JSON& health, const JSON& language);
// The toolchain rows from a finished run of the packs script `script` that was started as
// `program`; one "languages" warning when it did not run, failed, or printed no rows.
std::vector<DoctorCheck> packRows(const std::string& program, const std::string& script,
                                  const Captured& run);

// The rows as text (aligned, then the summary line) or as the JSON object {ok, checks}.
std::string doctorText(const std::vector<DoctorCheck>& checks);
std::string doctorJSON(const std::vector<DoctorCheck>& checks);

// check.
std::map<std::string, Handler> doctorVerbs();

}  // namespace vorn
