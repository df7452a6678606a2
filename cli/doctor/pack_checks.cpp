// The language toolchain rows: produced by the doctor-packs script of the checkout (run with
// the Bun on PATH) or of the installed app (run with the app's own Bun).
#include <string.h>

#include "doctor/doctor.h"
#include "hosts/bun_script.h"
#include "paths/paths.h"

namespace vorn {

namespace {

std::vector<DoctorCheck> skipped(const std::string& reason) {
  return {{"languages", "warn", "toolchain rows skipped: " + reason}};
}

bool isStatus(std::string_view status) {
  return status == "ok" || status == "warn" || status == "fail";
}

// One row from an element of the script's array; nothing unless it has the three strings.
std::optional<DoctorCheck> rowOf(const JSON& element) {
  const JSON* name = element.get("name");
  const JSON* status = element.get("status");
  const JSON* detail = element.get("detail");
  if (!element.members() || !name || !status || !detail) return std::nullopt;
  if (!name->string() || !status->string() || !detail->string()) return std::nullopt;
  if (!isStatus(*status->string())) return std::nullopt;
  return DoctorCheck{std::string(*name->string()), std::string(*status->string()),
                     std::string(*detail->string())};
}

}  // namespace

std::vector<DoctorCheck> packRows(const std::string& program, const std::string& script,
                                  const Captured& run) {
  if (run.startError != 0) {
    return skipped("cannot run " + program + ": " + ::strerror(run.startError));
  }
  if (run.overflow) {
    return skipped(script + " printed more than " + std::to_string(packOutputLimit >> 20) + " MiB");
  }
  if (run.signal != 0) {
    return skipped(script + " ended by signal " + std::to_string(run.signal));
  }
  if (run.status != 0) return skipped(script + " exited " + std::to_string(run.status));
  JSON parsed;
  try {
    parsed = JSON::parse(run.output);
  } catch (const JSONParseError& error) {
    return skipped(script + " printed no JSON (" + error.message + ")");
  }
  std::vector<DoctorCheck> rows;
  const std::string shape = script +
                            " printed something other than an array of rows "
                            "with name, status (ok, warn or fail) and detail";
  if (parsed.kind() != JSON::Kind::array) return skipped(shape);
  for (const JSON& element : parsed.list()) {
    std::optional<DoctorCheck> row = rowOf(element);
    if (!row) return skipped(shape);
    rows.push_back(std::move(*row));
  }
  return rows;
}

std::vector<DoctorCheck> Doctor::packChecks() const {
  std::optional<HeadlessHost> host =
      bunScript(ctx, Scripts::doctorPacksBundled, Scripts::doctorPacksSource, true);
  if (!host) {
    return skipped(
        "no Vorn checkout or Vorn.app (run from a checkout, or set VORN_REPO_ROOT or VORN_APP)");
  }
  std::string program = host->bun;
  if (!host->bundled) {
    std::optional<std::string> bun = which("bun");
    if (!bun) return skipped("bun not on PATH (direnv allow)");
    program = *bun;
  }
  if (!Paths::isRegularFile(host->entry)) return skipped("no script at " + host->entry);
  Waiting waiting(ctx.status,
                  {"waiting for " + program + " " + host->entry + " (the toolchain rows)",
                   std::nullopt, false});
  Captured run = captureOutput(program, hostArgv(*host, ctx.env, std::nullopt), host->cwd, ctx.env,
                               packOutputLimit);
  return packRows(program, host->entry, run);
}

}  // namespace vorn
