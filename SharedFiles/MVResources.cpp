#include "MVResources.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace {

bool isDirectory(const fs::path& path) {
  std::error_code ec;
  return fs::is_directory(path, ec);
}

bool isFile(const fs::path& path) {
  std::error_code ec;
  return fs::is_regular_file(path, ec);
}

}  // namespace

std::string MVResources::resourcesDirectory() {
  if (const char* env = std::getenv("QUILLON_RESOURCES"); env && *env) return env;

  // An installed agent lives in <prefix>/bin with its files in <prefix>/share/quillon.
  std::error_code ec;
  fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    fs::path installed = exe.parent_path().parent_path() / "share" / "quillon";
    if (isDirectory(installed)) return installed.lexically_normal().string();
  }

#ifdef QUILLON_SOURCE_RESOURCES
  if (isDirectory(QUILLON_SOURCE_RESOURCES)) return QUILLON_SOURCE_RESOURCES;
#endif
  return {};
}

std::string MVResources::pathForImageResource(const std::string& name) {
  if (name.empty()) return {};
  std::string dir = resourcesDirectory();
  if (dir.empty()) return {};
  fs::path exact = fs::path(dir) / name;
  if (isFile(exact)) return exact.string();
  for (const char* extension : {".png", ".svg"}) {
    fs::path candidate = exact;
    candidate.replace_extension(extension);
    if (isFile(candidate)) return candidate.string();
  }
  return {};
}
