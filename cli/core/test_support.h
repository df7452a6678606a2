// Helpers for unit tests: a Context whose output is captured, and small builders.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "core/cli_error.h"
#include "core/context.h"
#include "core/flags.h"

namespace vorn {

struct CapturedContext {
  std::string out;
  std::string err;
  Context ctx;

  explicit CapturedContext(std::string cwd = "/") {
    ctx.cwd = std::move(cwd);
    ctx.executable = "/usr/local/bin/vorn";
    ctx.writeOut = [this](std::string_view text) { out += text; };
    ctx.writeErr = [this](std::string_view text) { err += text; };
  }
  CapturedContext(const CapturedContext&) = delete;
  CapturedContext& operator=(const CapturedContext&) = delete;
};

// The CliError that `run` throws; a test failure when it throws none.
template <typename F>
CliError thrown(F&& run) {
  try {
    run();
  } catch (const CliError& error) {
    return error;
  }
  ADD_FAILURE() << "no CliError thrown";
  return CliError{"<nothing thrown>", -1};
}

// Flags holding only these positional words.
inline Flags withArgs(std::vector<std::string> args) {
  Flags flags;
  flags.args = std::move(args);
  return flags;
}

}  // namespace vorn
