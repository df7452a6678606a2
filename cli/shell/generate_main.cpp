// vorn_gen OUTDIR: writes the generated completion scripts, their C++ source and the manual
// page under OUTDIR. A file whose text is unchanged is left alone, so nothing downstream
// rebuilds for nothing.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "shell/generate.h"

namespace {

bool sameText(const std::filesystem::path& path, const std::string& text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream old;
  old << in.rdbuf();
  return old.str() == text;
}

bool write(const std::filesystem::path& path, const std::string& text) {
  if (sameText(path, text)) return true;
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out) std::fprintf(stderr, "vorn_gen: cannot write %s\n", path.c_str());
  return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: vorn_gen OUTDIR\n");
    return 2;
  }
  bool ok = true;
  for (const vorn::GeneratedFile& file : vorn::generatedFiles())
    ok = write(std::filesystem::path(argv[1]) / file.path, file.text) && ok;
  return ok ? 0 : 1;
}
