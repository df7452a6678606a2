// What a top-level command yields: an exit status, or a program to become.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace vorn {

struct Outcome {
  struct Exit {
    int32_t code = 0;
    bool operator==(const Exit&) const = default;
  };
  struct Exec {
    std::vector<std::string> argv;
    std::optional<std::string> root;
    bool operator==(const Exec&) const = default;
  };
  struct ExecHost {
    std::vector<std::string> argv;
    std::map<std::string, std::string> env;
    std::vector<std::string> unset;
    bool operator==(const ExecHost&) const = default;
  };

  std::variant<Exit, Exec, ExecHost> value;

  static Outcome exit(int32_t code) { return {Exit{code}}; }
  static Outcome exec(std::vector<std::string> argv, std::optional<std::string> root) {
    return {Exec{std::move(argv), std::move(root)}};
  }
  static Outcome execHost(std::vector<std::string> argv, std::map<std::string, std::string> env,
                          std::vector<std::string> unset) {
    return {ExecHost{std::move(argv), std::move(env), std::move(unset)}};
  }

  bool operator==(const Outcome&) const = default;
};

}  // namespace vorn
