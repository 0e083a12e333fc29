#include "MVSingleInstance.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>

#include "MVLocalPaths.h"
#include "MVLog.h"

namespace {

// Closes the descriptor, which releases the lock, when the process ends.
class LockFile {
 public:
  explicit LockFile(int fd) : fd_(fd) {}
  LockFile(LockFile&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;
  LockFile& operator=(LockFile&&) = delete;
  ~LockFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  int fd() const { return fd_; }

 private:
  int fd_;
};

std::mutex gMutex;
// Locks held by this process, by name; they are released only at exit.
std::map<std::string, LockFile>& heldLocks() {
  static std::map<std::string, LockFile> locks;
  return locks;
}

bool isPrivateDirectory(const std::string& path) {
  struct stat info {};
  return !path.empty() && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

void writeProcessID(int fd) {
  std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd, 0) != 0) return;
  // Only a hint for the refused copy's message; a failed write changes nothing.
  (void)!::pwrite(fd, pid.data(), pid.size(), 0);
}

}  // namespace

std::string MVSingleInstance::lockPath(const std::string& name) {
  std::string folder;
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && isPrivateDirectory(runtime))
    folder = runtime;
  else
    folder = MVLocalPaths::cacheDirectory(true);
  return MVAppendPathComponent(folder, name + ".lock");
}

bool MVSingleInstance::acquire(const std::string& name) {
  std::lock_guard<std::mutex> lock(gMutex);
  if (heldLocks().count(name)) return true;

  const std::string path = lockPath(name);
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  LockFile file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (file.fd() < 0) {
    MVLog::appendLog("Could not open the single-instance lock %@: %s", path, std::strerror(errno));
    return true;
  }
  while (::flock(file.fd(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno == EWOULDBLOCK) return false;
    MVLog::appendLog("Could not take the single-instance lock %@: %s", path, std::strerror(errno));
    return true;
  }
  writeProcessID(file.fd());
  heldLocks().emplace(name, std::move(file));
  return true;
}

std::optional<pid_t> MVSingleInstance::holderProcessID(const std::string& name) {
  LockFile file(::open(lockPath(name).c_str(), O_RDONLY | O_CLOEXEC));
  if (file.fd() < 0) return std::nullopt;
  char buffer[32] = {};
  ssize_t n = ::read(file.fd(), buffer, sizeof buffer - 1);
  if (n <= 0) return std::nullopt;
  char* end = nullptr;
  long pid = std::strtol(buffer, &end, 10);
  if (end == buffer || pid <= 0) return std::nullopt;
  return static_cast<pid_t>(pid);
}
