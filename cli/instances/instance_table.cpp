// The text table of instances shown by `instance list` and above ambiguity errors.
#include "core/error_output.h"
#include "instances/instances.h"

namespace vorn {

std::string instanceTable(const std::vector<InstanceInfo>& instances) {
  std::vector<std::vector<std::string>> rows;
  rows.reserve(instances.size() + 1);
  rows.push_back({"ID", "PID", "MODE", "WORKSPACE", "SOCK"});
  for (const auto& instance : instances) {
    rows.push_back({instance.id, std::to_string(instance.pid), instance.mode.value_or("app"),
                    instance.workspace.empty() ? "(none)" : instance.workspace,
                    instance.socketPath});
  }
  return formatTable(rows);
}

}  // namespace vorn
