// The managed `vorn` on PATH: a small bash script at ~/.local/bin/vorn (the shim) that runs
// the right vorn for the directory it is started in, and the verbs that install, remove and
// report it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/context.h"
#include "core/router.h"

namespace vorn {

// The words of the shim's second line that tell it from a foreign file of the same name.
inline constexpr std::string_view shimMarker = "vorn-shell-command: managed by Vorn Omnibar";
// The line that starts the shim's search for the checkout holding the current directory;
// shims written before that search existed lack it.
inline constexpr std::string_view shimCheckoutSearch = "d=\"$PWD\"";

// This program's own build inside an editor checkout (it lives at cli/native), relative to the
// checkout root: the executable the shim prefers, what makes it stale, and how to rebuild it.
namespace NativeBuild {
inline constexpr std::string_view executable = "cli/native/.build/debug/vorn";
inline constexpr std::string_view manifest = "cli/native/CMakeLists.txt";
inline constexpr std::string_view sources = "cli/native/cli";
inline constexpr std::string_view buildCommand = "make -C cli/native dev";
}  // namespace NativeBuild

// What the shim path holds.
struct ShimFile {
  enum class State { absent, managed, foreign, unreadable };
  State state = State::absent;
  std::string text;   // its first bytes (a shim is small), when it could be read
  std::string error;  // when unreadable: why, naming the path
};

// A `vorn` that Homebrew links, and the file it resolves to.
struct BrewLink {
  std::string link;
  std::string target;
  bool operator==(const BrewLink&) const = default;
};

// The shim's whereabouts, taken from one invocation's context.
struct ShellCommand {
  std::string home;                      // $HOME; empty when unset
  std::string binDir;                    // $HOME/.local/bin
  std::string shimPath;                  // binDir/vorn
  std::string fallback;                  // the checkout to use outside any checkout, or ""
  std::string appBin;                    // the CLI inside the app bundle, or ""
  std::vector<std::string> brewBinDirs;  // where Homebrew links programs
  std::vector<std::string> pathEntries;  // PATH split on ":"

  static ShellCommand from(const Context& ctx);

  // What is at the shim path (never throws).
  ShimFile inspect() const;
  // Absent when nothing is at the shim path; else whether it carries the marker. Throws
  // CliError (code 1) when something is there that cannot be read as a file.
  std::optional<bool> managed() const;
  // Whether binDir is one of PATH's directories.
  bool onPath() const;
  // The first Homebrew bin directory holding a `vorn`, with the path it resolves to.
  std::optional<BrewLink> brewLinked() const;
};

// The app bundle whose CLI the shim falls back to: VORN_APP (made absolute), the bundle holding
// this CLI, /Applications/Vorn.app; the first that is a directory.
std::optional<std::string> installedApp(const Context& ctx);

// Whether bash reads `value`, written as a JSON string literal, back as the same text: no "$"
// or "`" (bash would expand them), no control character (JSON escapes them, bash does not
// decode the escapes), valid UTF-8.
bool shimCanCarry(std::string_view value);
// The shim script for a fallback checkout and an app CLI (both may be empty).
std::string shimBody(const std::string& fallback, const std::string& appBin);

// install, uninstall and status.
std::map<std::string, Handler> shimVerbs();

}  // namespace vorn
