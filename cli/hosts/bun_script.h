// Bun scripts of a source checkout or of the installed app: where to find one, and the
// command line that runs it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/context.h"

namespace vorn {

// How to run one Bun script.
struct HeadlessHost {
  std::string bun;       // "bun" (found on PATH) for a checkout, the app's own Bun binary otherwise
  std::string entry;     // absolute path of the script
  std::string cwd;       // the checkout root, or the app's script root
  bool bundled = false;  // true when the recipe comes from the installed app
  bool operator==(const HeadlessHost&) const = default;
};

// The script entries of a checkout (run from source, relative to its root) and their prebuilt
// names inside an app bundle (below Contents/Resources/app/bun/).
namespace Scripts {
inline constexpr std::string_view headlessSource = "src/bun/headless.ts";
inline constexpr std::string_view headlessBundled = "headless.js";
inline constexpr std::string_view tunnelSource = "src/bun/remote/tunnel-main.ts";
inline constexpr std::string_view tunnelBundled = "tunnel-main.js";
inline constexpr std::string_view doctorPacksSource = "src/cli/doctor-packs.ts";
inline constexpr std::string_view doctorPacksBundled = "doctor-packs.js";
inline constexpr std::string_view defaultApp = "/Applications/Vorn.app";
}  // namespace Scripts

// The prebuilt script `name` of the app whose Contents directory is `contents`, when both the
// app's Bun binary and the script are regular files.
std::optional<HeadlessHost> bundledScript(const std::string& contents, std::string_view name);

// A runnable script, first hit wins: the app bundle holding this CLI (unless `checkoutFirst`),
// the checkout's `source` (not checked for existence), then the apps holding the CLI, named
// by VORN_APP and installed at /Applications/Vorn.app.
std::optional<HeadlessHost> bunScript(const Context& ctx, std::string_view bundled,
                                      std::string_view source, bool checkoutFirst);

// The script a host command runs (bunScript, the CLI's own app bundle first), with this
// process moved into its folder. Throws CliError (code 1): "<command>: no <missing> — run the
// vorn inside Vorn.app, ..." when there is none, "<command>: cannot enter <folder>".
HeadlessHost enterBunScript(const Context& ctx, std::string_view bundled, std::string_view source,
                            const std::string& command, const std::string& missing);

// The variables a host must not inherit: VORN_REPO_ROOT for an app-bundled one, so that it
// never attaches itself to a checkout.
std::vector<std::string> hostUnsetVariables(const HeadlessHost& host);

// bun [--conditions=vorn-edition-<VORN_EDITION>] <entry> [dir]; the edition condition only
// for a script run from source.
std::vector<std::string> hostArgv(const HeadlessHost& host,
                                  const std::map<std::string, std::string>& env,
                                  const std::optional<std::string>& dir);

}  // namespace vorn
