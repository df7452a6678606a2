#include "paths/checkout.h"

#include "paths/paths.h"

namespace vorn {

std::optional<std::string> checkoutRoot(const std::string& cwd, const std::string& executable,
                                        const std::map<std::string, std::string>& env) {
  if (auto root = Paths::checkout(cwd)) return root;
  if (executable.rfind("/", 0) == 0) {
    if (auto root = Paths::checkout(Paths::parent(executable))) return root;
  }
  auto fromEnv = env.find("VORN_REPO_ROOT");
  if (fromEnv != env.end() && !fromEnv->second.empty() && Paths::isCheckout(fromEnv->second)) {
    return fromEnv->second;
  }
  return std::nullopt;
}

}  // namespace vorn
