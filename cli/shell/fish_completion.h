// The fish completion script, written from the completion model at build time.
#pragma once

#include <string>

#include "shell/completion_model.h"

namespace vorn {

// Ends with its last `complete` line, without a newline after it.
std::string fishScript(const CompletionModel& model);

// Text as a fish single-quoted word.
std::string fishQuote(const std::string& text);

}  // namespace vorn
