// `vorn version`: the CLI's version and the bridge protocol each relevant instance speaks.
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/text.h"
#include "core/command_table.h"
#include "instances/parallel.h"
#include "transport/transport.h"
#include "verbs/verbs.h"

namespace vorn {

namespace Version {

// A protocol value as the version line shows it: null is "unknown", integral numbers print
// every digit without a fraction, everything else as a script would render it.
std::string renderProtocol(const JSON& protocol) {
  if (protocol.isNull()) return "unknown";
  if (std::optional<double> number = protocol.number()) {
    double v = *number;
    if (std::isfinite(v) && v == std::trunc(v)) {
      if (std::fabs(v) < 9.2e18) return std::to_string(static_cast<int64_t>(v));
      char text[400];
      std::snprintf(text, sizeof text, "%.0f", v);
      return text;
    }
    return JSON::formatNumber(v);
  }
  return renderValue(&protocol);
}

// The whole output for the given (id, protocol) pairs.
std::string versionOutput(const std::vector<std::pair<std::string, JSON>>& protocols, bool json) {
  if (json) {
    JSON::Array list;
    list.reserve(protocols.size());
    for (const auto& [id, protocol] : protocols) {
      list.push_back(JSON::object({{"id", JSON(id)}, {"protocol", protocol}}));
    }
    return JSON::object({{"cli", JSON(cliVersion)}, {"instances", JSON(std::move(list))}})
               .serialized(2) +
           "\n";
  }
  std::string out = std::string("vorn ") + cliVersion + "\n";
  for (const auto& [id, protocol] : protocols) {
    out += "instance " + id + ": bridge protocol " + renderProtocol(protocol) + "\n";
  }
  return out;
}

}  // namespace Version

void printVersion(const Flags& flags, Instances& instances) {
  // Inside a checkout whose app runs, that app is the one the user means.
  std::vector<InstanceInfo> chosen;
  if (hasSelector(flags)) {
    chosen = instances.resolve(flags, false, true);
  } else if (std::optional<InstanceInfo> mine = instances.own()) {
    chosen = {*mine};
  } else {
    chosen = instances.scan(false).live;
  }

  // A failed request folds into an object without "protocol", which reads as unknown.
  std::vector<JSON> replies;
  {
    FanoutWait waiting(instances.ctx.status, chosen);
    replies = parallelMap(chosen, [&](const InstanceInfo& instance) {
      JSON reply = Transport::getJSON(instance.socketPath, "/health", Transport::recordReplyBytes);
      waiting.answered(static_cast<size_t>(&instance - chosen.data()));
      return reply;
    });
  }
  std::vector<std::pair<std::string, JSON>> protocols;
  protocols.reserve(chosen.size());
  for (size_t i = 0; i < chosen.size(); ++i) {
    const JSON* protocol = replies[i].get("protocol");
    protocols.emplace_back(chosen[i].id, protocol ? *protocol : JSON());
  }
  std::string out = Version::versionOutput(protocols, flags.json);
  instances.ctx.writeOut(flags.json ? out : visibleControls(out));
}

}  // namespace vorn
