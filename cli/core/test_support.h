// A Context whose output is captured, for unit tests.
#pragma once

#include <string>

#include "core/context.h"

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

}  // namespace vorn
