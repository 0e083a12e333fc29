// The files of the log: where they lie, how generations rotate, and how a
// new current file starts.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVLogInternal.h"
#include "MVPropertyList.h"

using namespace mvlog_detail;
namespace fs = std::filesystem;

namespace {

// -1: ask the system; 0 or 1: the test's answer.
std::atomic<int> gRootOverride{-1};

}  // namespace

bool mvlog_detail::runningAsRoot() {
  int forced = gRootOverride.load();
  return forced >= 0 ? forced == 1 : ::getuid() == 0;
}

void MVLog::overrideRunningAsRoot(std::optional<bool> isRoot) { gRootOverride.store(isRoot ? *isRoot : -1); }

std::string MVLog::logFolder() { return MVAppendPathComponent(MVLocalPaths::logDirectory(true), "Morvane"); }

namespace {

std::string generationPath(const std::string& folder, const std::string& name, long generation) {
  return MVFormatString("%@/%@.%li.log", folder, name, generation);
}

}  // namespace

std::string MVLog::currentLogPath() {
  std::string name = sharedController().appName();
  // As root the current file lies in the machine's folder; the folder that
  // is created and the older generations stay in the user's.
  std::string folder = runningAsRoot()
                           ? MVAppendPathComponent(MVLocalPaths::logDirectory(false), "Morvane")
                           : logFolder();
  return generationPath(folder, name, 1);
}

std::vector<std::string> MVLog::availableLogs() {
  std::vector<std::string> logs;
  std::string folder = logFolder(), name = sharedController().appName();
  for (long n = 1; n <= kGenerations; ++n) {
    std::string path = generationPath(folder, name, n);
    std::error_code ec;
    if (fs::exists(path, ec)) logs.push_back(path);
  }
  return logs;
}

namespace {

// Moves one generation up; like the platform's file manager it refuses to
// replace what already stands at the destination.
bool moveGeneration(const std::string& from, const std::string& to) {
  std::error_code ec;
  if (fs::exists(fs::symlink_status(to, ec))) return false;
  if (::rename(from.c_str(), to.c_str()) == 0) return true;
  if (errno != EXDEV) return false;
  fs::copy_file(from, to, ec);
  if (ec) return false;
  fs::remove(from, ec);
  return true;
}

// Replaces `path` with an empty file through a temporary file and a rename,
// so no reader sees a half-made file. The error text on failure.
std::optional<std::string> writeEmptyFileAtomically(const std::string& path) {
  std::string temporary = path + ".XXXXXX";
  int fd = ::mkstemp(temporary.data());
  if (fd < 0) return std::string(std::strerror(errno));
  ::fchmod(fd, 0644);
  ::close(fd);
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    std::string error = std::strerror(errno);
    ::unlink(temporary.c_str());
    return error;
  }
  return std::nullopt;
}

void writeHeader() {
  MVLog::fastAppendLog("Log started: %@\n", nowDescription());
#ifdef QUILLON_VERSION
  MVLog::fastAppendLog("Version: %@\n", QUILLON_VERSION);
#endif
  if (std::string exe = executablePath(); !exe.empty()) MVLog::fastAppendLog("Path: %@\n", exe);
  long cpus = ::sysconf(_SC_NPROCESSORS_CONF);
  double memory =
      static_cast<double>(::sysconf(_SC_PHYS_PAGES)) * static_cast<double>(::sysconf(_SC_PAGESIZE));
  MVLog::appendLog("System: %@, %li CPU(s), %0.2f GB RAM\n", operatingSystemDescription(), cpus,
                   memory / 1024 / 1024 / 1024);
  MVLog::fastAppendLog(sizeof(void*) == 8 ? "Running in 64-bit mode\n" : "Running in 32-bit mode\n");
}

}  // namespace

void MVLog::createNewLog() { createNewLog(std::string(), false); }

void MVLog::createNewLog(const std::string& name, bool noPrinting) {
  MVLog& log = sharedController();
  State& s = *log.state_;
  s.noPrinting.store(noPrinting);
  if (s.loggingDisabled.load()) return;
  s.startWriter(log);
  {
    std::lock_guard<std::mutex> lock(s.createMutex);
    s.setFile(nullptr);
    if (MVGlobalPreferences::isSwitchSet("disable-logging")) {
      s.complain("Logging is disabled\n");
      s.loggingDisabled.store(true);
      return;
    }
    {
      std::lock_guard<std::mutex> nameLock(s.nameMutex);
      if (!name.empty() && !s.appName) s.appName = name;
    }
    s.bytesWritten.store(0);
    if (log.appName().empty()) log.setAppName("Unknown");

    const std::string folder = logFolder(), path = currentLogPath(), appName = log.appName();
    std::error_code ec;
    if (!fs::exists(folder, ec)) {
      fs::create_directories(folder, ec);
      if (ec) {
        s.complain(MVFormatString("Unable to create folder %s.\n", folder));
        return;
      }
    }
    if (fs::exists(path, ec)) {
      fs::remove(generationPath(folder, appName, kGenerations), ec);
      for (long n = kGenerations - 1; n >= 1; --n) {
        std::string from = n == 1 ? path : generationPath(folder, appName, n);
        std::string to = generationPath(folder, appName, n + 1);
        if (!fs::exists(fs::symlink_status(from, ec))) continue;
        if (!moveGeneration(from, to)) {
          s.complain(MVFormatString("Unable to move file %s to %s.\n", from, to));
          return;
        }
      }
    }
    if (auto error = writeEmptyFileAtomically(path)) {
      s.complain(MVFormatString("Unable to create log file %s - %s\n", path, *error));
      return;
    }
    auto file = LogFile::open(path);
    if (!file) return;  // the writer tries again with the next line
    s.setFile(std::move(file));
  }
  writeHeader();
}

