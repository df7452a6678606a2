#include "core/command_table.h"

namespace vorn {

OptionSpec switchOption(std::string name, std::string summary) {
  return {std::move(name), std::nullopt, std::nullopt, std::move(summary)};
}
OptionSpec switchOption(std::string name, std::string alias, std::string summary) {
  return {std::move(name), std::move(alias), std::nullopt, std::move(summary)};
}
OptionSpec valueOption(std::string name, std::string value, std::string summary) {
  return {std::move(name), std::nullopt, std::move(value), std::move(summary)};
}

namespace {

std::vector<NounSpec> buildNouns() {
  const OptionSpec noWait =
      switchOption("--no-wait", "return once the run started (summary has started: true)");
  return {
      {"instance",
       "Live Vorn instances (one per window / vorn server; AF_UNIX control sockets)",
       {
           {"list",
            "vorn instance list [--prune] [-q]",
            "list every live instance; unreachable dirs are reported on stderr",
            {switchOption("--prune", "remove unreachable <pid>/ dirs first (as instance prune)"),
             switchOption("--quiet", "-q", "only the ids, one per line (no stale-dir warning)")}},
           {"inspect",
            "vorn instance inspect [ID...]",
            "JSON detail per instance: health, workspace, language, diagnostics counts "
            "(default: all)",
            {}},
           {"focus", "vorn instance focus", "raise the instance's window (POST /focus)", {}},
           {"quit",
            "vorn instance quit",
            "quit cleanly (POST /quit) and wait for the process to exit; always needs -i, "
            "--pid, -a or --sock",
            {}},
           {"prune",
            "vorn instance prune",
            "remove unreachable <pid>/ socket dirs (dead pid; alive pid past 10s)",
            {}},
           {"health", "vorn instance health", "GET /health (default: every instance)", {}},
       }},
      {"workspace",
       "The folder an instance has open",
       {
           {"open",
            "vorn workspace open <dir> [--new]",
            "open a folder: in the one picked with -i, this checkout's dev app, the only "
            "instance, or a new one (--new); launches Vorn when none runs",
            {switchOption("--new", "always launch a new instance")}},
           {"show",
            "vorn workspace show",
            "GET /workspace: root, name, Go environment (default: every instance)",
            {}},
           {"tree",
            "vorn workspace tree",
            "POST /api/listTree: the workspace file tree as JSON ([] when no folder is open)",
            {}},
       }},
      {"file",
       "Files in an instance's workspace",
       {
           {"open",
            "vorn file open <file>[:line[:col]]",
            "open + reveal (1-based) in the instance whose workspace contains the file (or "
            "-i); never launches or retargets",
            {}},
           {"read",
            "vorn file read <path>",
            "GET /read: a workspace file's contents as JSON (path workspace-relative)",
            {}},
       }},
      {"command",
       "Registry commands: the same ids as \u2318\u21e7P, the native menus and the context menu",
       {
           {"list",
            "vorn command list",
            "GET /command: every allowlisted id with its title, target and keybinding",
            {}},
           {"run",
            "vorn command run <id> [args\u2026] [--yes]",
            "POST /command: run one command (-a fans out; webview commands are "
            "fire-and-forget)",
            {switchOption("--yes",
                          "confirm a command that asks first (go-mod-tidy, go-mod-vendor, "
                          "go-clean-modcache)")}},
       }},
      {"diagnostics",
       "Problems: language server, analyzer and test diagnostics",
       {
           {"list",
            "vorn diagnostics list [--source S]",
            "GET /diagnostics: Problems rows and analyzer run state",
            {valueOption("--source", "S", "only rows from S (gopls, nogo, \"go test\")")}},
       }},
      {"nogo",
       "Bazel nogo analyzers (Bazel workspaces)",
       {
           {"run",
            "vorn nogo run",
            "POST /nogo: run nogo, print its diagnostics; exit 1 when it reports ok:false",
            {}},
       }},
      {"search",
       "Find in Files (ripgrep or the built-in fallback; .gitignore honored)",
       {
           {"run",
            "vorn search run <pattern> [--regex] [--case] [--word] [--include GLOBS] "
            "[--exclude GLOBS] [--max N]",
            "GET /search: prints path:line:col: preview (exit 1 when nothing matched)",
            {switchOption("--regex", "pattern is a regular expression"),
             switchOption("--case", "match case"), switchOption("--word", "whole word"),
             valueOption("--include", "GLOBS", "only these files (VS Code-style: *.go, pkg/)"),
             valueOption("--exclude", "GLOBS", "skip these files"),
             valueOption("--max", "N", "result cap (default 10k)")}},
       }},
      {"test",
       "Tests: run, rerun, cancel, last result (exit 1 on failures)",
       {
           {"run",
            "vorn test run [<dir>|<file>[:line]|./...] [--cover] [--no-wait]",
            "POST /test: dir = that package, file:line = innermost test/subtest at the line, "
            "_test.go = its tests, ./... or none = workspace",
            {switchOption(
                 "--cover",
                 "collect coverage: the summary's coverage has the total and per-package %; the "
                 "editor marks lines"),
             noWait}},
           {"rerun",
            "vorn test rerun last|failed [--no-wait]",
            "POST /test {rerun}: the last run again, or only its failed top-level tests",
            {noWait}},
           {"cancel", "vorn test cancel", "POST /test/cancel: cancel in-flight runs", {}},
           {"status", "vorn test status", "GET /test: the latest run's summary", {}},
       }},
      {"language",
       "The language service behind the editor (Go: gopls)",
       {
           {"status",
            "vorn language status",
            "GET /language/status: language id, ready, detail (running server version)",
            {}},
           {"hover",
            "vorn language hover <path> <line> <char>",
            "POST /api/languageHover at a 0-based position (path absolute or "
            "workspace-relative): the LSP result",
            {}},
           {"definition",
            "vorn language definition <path> <line> <char>",
            "POST /api/languageDefinition at a 0-based position (path absolute or "
            "workspace-relative): the LSP result",
            {}},
           {"type-definition",
            "vorn language type-definition <path> <line> <char>",
            "POST /api/languageTypeDefinition at a 0-based position (path absolute or "
            "workspace-relative): the LSP result",
            {}},
       }},
      {"server",
       "Headless Vorn host (no window); shows in vorn instance list",
       {
           {"start",
            "vorn server start [dir] [--detach]",
            "headless host on the shared runtime dir; UI verbs answer requires-UI. Foreground "
            "until Ctrl-C / vorn instance quit",
            {switchOption("--detach",
                          "start in the background and print its pid, socket and log")}},
       }},
      {"remote",
       "Remote development over SSH (docs/remote.md): the host runs on the box, the window "
       "here",
       {
           {"ssh",
            "vorn remote ssh <[user@]host[:path]> [--no-window] [--ssh-config FILE]",
            "install / upgrade the host on the box under ~/.vorn-server/<version>/, start one "
            "for the folder and forward its socket; opens a window (macOS) or, with "
            "--no-window, stays in the foreground as an instance",
            {switchOption(
                 "--no-window",
                 "no window: forward the host to an instance socket here until Ctrl-C (default "
                 "on Linux)"),
             valueOption("--ssh-config", "FILE", "ssh -F FILE instead of ~/.ssh/config")}},
       }},
      {"doctor",
       "Health of the CLI, runtime dir, instances and language toolchains (no instance "
       "needed)",
       {
           {"check",
            "vorn doctor check",
            "[ok|warn|fail] rows: runtime dir, instances, PATH shim, language toolchains; exit "
            "1 only on fail",
            {}},
       }},
      {"shell-command",
       "The vorn command on PATH (~/.local/bin/vorn; same as the Omnibar Shell Command)",
       {
           {"install",
            "vorn shell-command install",
            "write the managed shim for this checkout (idempotent)",
            {}},
           {"uninstall",
            "vorn shell-command uninstall",
            "remove the shim (only one Vorn installed)",
            {}},
           {"status",
            "vorn shell-command status",
            "is the shim installed, Vorn-managed, on PATH",
            {}},
           {"completion",
            "vorn shell-command completion bash|zsh|fish",
            "print a shell completion script (nouns, verbs, flags, live instance ids)",
            {}},
       }},
  };
}

}  // namespace

const std::vector<OptionSpec>& globalOptions() {
  static const std::vector<OptionSpec> options = {
      {"--instance", "-i", "ID",
       "target one instance (id or unique prefix; see vorn instance list)"},
      {"--all", "-a", std::nullopt, "fan out to every live instance (where it makes sense)"},
      {"--pid", std::nullopt, "N", "target the instance whose Bun pid is N (exact)"},
      {"--sock", std::nullopt, "PATH", "talk to an explicit fs.sock"},
      {"--output", "-o", "json", "machine-readable JSON output"},
  };
  return options;
}

const std::vector<NounSpec>& productNouns() {
  static const std::vector<NounSpec> nouns = buildNouns();
  return nouns;
}

const NounSpec* findNoun(std::string_view word) {
  for (const NounSpec& noun : productNouns()) {
    if (noun.noun == word) return &noun;
  }
  return nullptr;
}

const VerbSpec* NounSpec::verb(std::string_view name) const {
  for (const VerbSpec& v : verbs) {
    if (v.name == name) return &v;
  }
  return nullptr;
}

std::string NounSpec::verbNames() const {
  std::string out;
  for (const VerbSpec& v : verbs) {
    if (!out.empty()) out += ", ";
    out += v.name;
  }
  return out;
}

}  // namespace vorn
