// The Linux answer of MVOpenFiles: a walk of /proc/<pid>/fd.
#ifndef __APPLE__

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unordered_map>

#include "MVOpenFiles.h"

namespace {

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

struct FdCloser {
  int fd;
  ~FdCloser() {
    if (fd >= 0) close(fd);
  }
};

bool isNumber(const char* name) {
  if (!*name) return false;
  for (; *name; ++name)
    if (*name < '0' || *name > '9') return false;
  return true;
}

// Reads a small /proc file relative to `dirFd`; "" when it cannot be read.
std::string readSmall(int dirFd, const char* name) {
  FdCloser file{openat(dirFd, name, O_RDONLY | O_CLOEXEC)};
  if (file.fd < 0) return {};
  char buffer[512];
  ssize_t n = read(file.fd, buffer, sizeof buffer - 1);
  if (n <= 0) return {};
  return std::string(buffer, static_cast<std::size_t>(n));
}

// The "flags:" line of an fdinfo entry is octal.
bool openedForWriting(int pidFd, const char* fdName) {
  std::string info = readSmall(pidFd, (std::string("fdinfo/") + fdName).c_str());
  auto at = info.find("flags:");
  if (at == std::string::npos) return false;
  long flags = std::strtol(info.c_str() + at + 6, nullptr, 8);
  int mode = static_cast<int>(flags) & O_ACCMODE;
  return mode == O_WRONLY || mode == O_RDWR;
}

// The kernel refuses a read lease while any process holds the file open for
// writing, and answers at once. That spares the walk of every process's
// descriptors, a few thousand system calls, whenever nobody writes, which is
// what the folder check finds nearly always. Leases need a local file system
// and a file of our own (or CAP_LEASE); anywhere else the answer is unknown.
enum class LeaseAnswer { NoWriter, Writer, Unknown };

LeaseAnswer askForReadLease(const std::string& path) {
  // O_NONBLOCK: never wait for another program's lease to be given back.
  FdCloser file{open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
  if (file.fd < 0) return LeaseAnswer::Unknown;
  // Should a writer open the file in the microseconds the lease is held, the
  // kernel signals the holder; SIGURG is ignored unless handled, SIGIO would
  // end the process.
  if (fcntl(file.fd, F_SETSIG, SIGURG) != 0) return LeaseAnswer::Unknown;
  if (fcntl(file.fd, F_SETLEASE, F_RDLCK) == 0) {
    fcntl(file.fd, F_SETLEASE, F_UNLCK);
    return LeaseAnswer::NoWriter;
  }
  return errno == EAGAIN ? LeaseAnswer::Writer : LeaseAnswer::Unknown;
}

}  // namespace

std::optional<MVOpenWriter> MVOpenFiles::writerOfAnyOf(const std::vector<std::string>& paths) {
  // The kernel's fd links name files by their resolved path.
  std::unordered_map<std::string, const std::string*> wanted;
  for (const std::string& path : paths) {
    char* resolved = realpath(path.c_str(), nullptr);
    if (!resolved) continue;
    if (askForReadLease(resolved) != LeaseAnswer::NoWriter) wanted.emplace(resolved, &path);
    std::free(resolved);
  }
  if (wanted.empty()) return std::nullopt;

  DirHandle proc(opendir("/proc"));
  if (!proc) return std::nullopt;
  const uid_t me = geteuid();
  const pid_t self = getpid();
  char link[4096];
  while (dirent* entry = readdir(proc.get())) {
    if (!isNumber(entry->d_name)) continue;
    FdCloser pidDir{openat(dirfd(proc.get()), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (pidDir.fd < 0) continue;
    struct stat st {};
    if (fstat(pidDir.fd, &st) != 0 || st.st_uid != me) continue;
    int fdDirFd = openat(pidDir.fd, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fdDirFd < 0) continue;
    DirHandle fds(fdopendir(fdDirFd));
    if (!fds) {
      close(fdDirFd);
      continue;
    }
    const int pid = std::atoi(entry->d_name);
    while (dirent* fdEntry = readdir(fds.get())) {
      if (!isNumber(fdEntry->d_name)) continue;
      ssize_t n = readlinkat(fdDirFd, fdEntry->d_name, link, sizeof link - 1);
      if (n <= 0 || link[0] != '/') continue;
      auto found = wanted.find(std::string(link, static_cast<std::size_t>(n)));
      if (found == wanted.end()) continue;
      // Our own descriptors (a size or header read in flight) never count.
      if (pid == self || !openedForWriting(pidDir.fd, fdEntry->d_name)) continue;
      std::string command = readSmall(pidDir.fd, "comm");
      while (!command.empty() && command.back() == '\n') command.pop_back();
      return MVOpenWriter{pid, command, *found->second};
    }
  }
  return std::nullopt;
}

#endif  // __APPLE__
