// Opening folders and files in a chosen instance: the steps the workspace and file verbs share.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/flags.h"
#include "instances/instances.h"
#include "json/json.h"

namespace vorn {

// Opens `dir` (absolute, normalised) in one instance: POST /workspace, then a best-effort
// POST /focus, then "Opened <root> on instance <id>". Throws CliError (code 1) on failure.
void openOn(const Instances& instances, const InstanceInfo& instance, const std::string& dir);

// Scans until one live instance has an id outside `known` (the first such one), sleeping
// `interval` between scans; nothing once `wait` has passed. Used after launching the app.
std::optional<InstanceInfo> waitForNewInstance(
    const std::function<std::vector<InstanceInfo>()>& scan, const std::set<std::string>& known,
    std::chrono::milliseconds wait, std::chrono::milliseconds interval);

// What the user asked for with -i, --pid or --sock, for "no instance matches ..." messages.
std::string selectorText(const Flags& flags);

// A <file>[:line[:col]] word taken apart: `path` is the file part as the user typed it.
struct TypedTarget {
  std::string path;
  std::optional<int64_t> line;
  std::optional<int64_t> col;
  bool operator==(const TypedTarget&) const = default;
};

// Splits the word the way this machine sees it: the whole word when it names something here
// (a file whose own name holds ":" stays whole), else at its position suffix if it has one.
TypedTarget localTarget(const std::string& word, const std::string& cwd);
// Splits the word without looking at the file system (for an instance on another host).
TypedTarget remoteTarget(const std::string& word);

// The line "Opened <path>:<line>:<col> on instance <id>" for an /openFile reply, each value
// rendered as a script template would (a missing key reads "undefined").
std::string openedFileText(const JSON& reply, const std::string& id);

}  // namespace vorn
