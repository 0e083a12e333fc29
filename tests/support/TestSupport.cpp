#include "TestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "MVRunLoop.h"

namespace fs = std::filesystem;

namespace quillon_test {

namespace {
std::string gHome;
}

void setTestHome(const std::string& home) { gHome = home; }
const std::string& testHome() { return gHome; }

std::string makeTempDir(const std::string& prefix) {
  std::string templ = gHome + "/" + prefix + ".XXXXXX";
  char* made = mkdtemp(templ.data());
  if (!made) std::abort();
  return templ;
}

void writeFile(const std::string& path, const std::string& contents) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool fileExists(const std::string& path) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(path, ec));
}

bool waitUntil(const std::function<bool()>& condition, double timeoutSeconds) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    if (MVRunLoop::hasMain() && MVRunLoop::main().isMainThread())
      MVRunLoop::main().runFor(0.01);
    else
      usleep(10000);
  }
  return true;
}

int shell(const std::string& command) {
  int rc = std::system(command.c_str());
  if (rc == -1) return -1;
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : 128 + WTERMSIG(rc);
}

std::string shellOutput(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

std::string binPath(const std::string& name) { return std::string(QUILLON_BINARY_DIR) + "/bin/" + name; }

}  // namespace quillon_test
