// The one failure value of a command, thrown up to the entry and printed once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vorn {

struct CliError {
  CliError() = default;
  CliError(std::string message, int32_t code = 1) : message(std::move(message)), code(code) {}

  std::string message;
  int32_t code = 1;
  std::optional<std::string> instance;
  std::optional<std::vector<std::string>> instances;
  std::optional<std::string> preface;
  // A line after the message, "did you mean 'instance'?", printed only at a terminal (never in
  // JSON, never where a script reads it).
  std::optional<std::string> suggestion;

  bool operator==(const CliError&) const = default;
};

// A usage error: exit status 2.
inline CliError usageError(std::string message) {
  return CliError{std::move(message), 2};
}

}  // namespace vorn
