#include "TestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "MVLog.h"
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

std::string shellQuote(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

int python3(const std::string& script) {
  std::string file = makeTempDir("py") + "/script.py";
  writeFile(file, script);
  return shell("/usr/bin/python3 " + file);
}

std::string binPath(const std::string& name) { return std::string(QUILLON_BINARY_DIR) + "/bin/" + name; }

std::size_t timesIn(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++n;
  return n;
}

std::size_t linesWith(const std::string& text, const std::string& part, const std::string& also) {
  std::istringstream lines(text);
  std::size_t n = 0;
  for (std::string line; std::getline(lines, line);)
    if (line.find(part) != std::string::npos && line.find(also) != std::string::npos) ++n;
  return n;
}

EnvOverride::EnvOverride(const char* name, std::optional<std::string> value) : name_(name) {
  if (const char* old = std::getenv(name)) old_ = old;
  if (value)
    setenv(name, value->c_str(), 1);
  else
    unsetenv(name);
}

EnvOverride::~EnvOverride() {
  if (old_)
    setenv(name_, old_->c_str(), 1);
  else
    unsetenv(name_);
}

namespace {
std::string wholeLog() {
  MVLog::finishWriting();
  std::string path = MVLog::currentLogPath();
  return fileExists(path) ? readFile(path) : std::string();
}
}  // namespace

LogSince::LogSince() : offset_(wholeLog().size()) {}
std::string LogSince::text() const { return wholeLog().substr(offset_); }

std::string enterPrivateNetwork(bool ownHostName) {
  if (unshare(CLONE_NEWNET | (ownHostName ? CLONE_NEWUTS : 0)) != 0) return std::string("unshare: ") + std::strerror(errno);
  if (shell("ip link set lo up") != 0) return "ip link set lo up failed";
  return {};
}

}  // namespace quillon_test
