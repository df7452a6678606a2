#include "core/error_output.h"

#include <algorithm>

#include "core/text.h"
#include "json/json.h"

namespace vorn {

std::string errorOutput(const CliError& error, bool json) {
  if (error.message.empty()) return "";
  if (json) {
    JSON::Object pairs = {{"error", JSON(error.message)}};
    if (error.instance && !error.instance->empty()) pairs.emplace_back("instance", *error.instance);
    if (error.instances) {
      JSON::Array ids(error.instances->begin(), error.instances->end());
      pairs.emplace_back("instances", JSON(std::move(ids)));
    }
    pairs.emplace_back("code", JSON(error.code));
    return JSON(std::move(pairs)).serialized(0);
  }
  std::string text = error.message.rfind("vorn", 0) == 0 ? error.message : "vorn: " + error.message;
  // A message may quote an instance's reply: shown, never interpreted by the terminal.
  if (error.preface) return visibleControls(*error.preface + "\n" + text);
  return visibleControls(text);
}

std::string formatTable(const std::vector<std::vector<std::string>>& raw) {
  // Cells may come from instances: control characters are written out before the widths are
  // counted, so the columns line up as printed.
  std::vector<std::vector<std::string>> rows = raw;
  for (auto& row : rows) {
    for (std::string& cell : row) cell = visibleControls(cell);
  }
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    if (widths.size() < row.size()) widths.resize(row.size(), 0);
    for (size_t c = 0; c < row.size(); ++c)
      widths[c] = std::max(widths[c], charCount(row[c]));
  }
  std::string out;
  for (size_t r = 0; r < rows.size(); ++r) {
    if (r) out += '\n';
    for (size_t c = 0; c < rows[r].size(); ++c)
      appendPadded(out, rows[r][c], widths[c] + 2);
  }
  return out;
}

}  // namespace vorn
