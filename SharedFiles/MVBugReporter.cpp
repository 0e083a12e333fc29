#include "MVBugReporter.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "MVProcessInfo.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVResources.h"
#include "MVRunLoop.h"
#include "MVTaskEx.h"
#include "MVWorkspace.h"

namespace {

using Date = MVPlistValue::Date;

std::string markerStorePath(const std::optional<std::string>& plistPath) {
  return plistPath ? *plistPath : MVBugReporter::defaultsPath(MVBugReporter::defaultApplicationName());
}

void recordMarker(const char* key, const std::optional<std::string>& plistPath) {
  std::string path = markerStorePath(plistPath);
  MVPropertyList::Format format = MVPropertyList::Format::XML;
  MVPlistValue store = MVPropertyList::read(path, &format);
  if (!store.isDictionary()) store = MVPlistValue(MVPlistValue::Dictionary{});
  store.set(key, MVPlistValue(std::chrono::system_clock::now()));
  if (!plistPath) {
    std::string folder = path.substr(0, path.rfind('/'));
    mkdir(folder.c_str(), 0700);
  }
  if (!MVPropertyList::write(path, store, format)) return;
  if (plistPath) MVBugReporter::chownPlist(path);
}

std::optional<Date> modificationDate(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return std::nullopt;
  auto since = std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec);
  return Date(std::chrono::duration_cast<Date::duration>(since));
}

// The newest crash log of the application written after `launch`, searching
// the folders in order and taking, in each, the last matching entry of the
// (unsorted) listing.
std::optional<std::string> findCrashLog(const std::string& name, Date launch) {
  const std::string prefix = name + "_";
  std::vector<std::string> folders;
  for (bool user : {true, false}) {
    folders.push_back(MVAppendPathComponent(MVLocalPaths::logDirectory(user), "CrashReporter"));
    folders.push_back(MVAppendPathComponent(MVLocalPaths::logDirectory(user), "DiagnosticReports"));
  }
  for (const std::string& folder : folders) {
    DIR* dir = opendir(folder.c_str());
    if (!dir) continue;
    std::optional<std::string> last;
    while (dirent* entry = readdir(dir))
      if (strncasecmp(entry->d_name, prefix.c_str(), prefix.size()) == 0) last = entry->d_name;
    closedir(dir);
    if (!last) continue;
    std::string path = MVAppendPathComponent(folder, *last);
    auto modified = modificationDate(path);
    if (modified && *modified > launch) return path;
  }
  return std::nullopt;
}

bool isExecutableFile(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode)) && access(path.c_str(), X_OK) == 0;
}

void openWithBugReporter(const std::string& crashLog) {
  std::string executable = MVProcessInfo::executablePath();
  std::string executableDir = executable.substr(0, executable.rfind('/'));
  const std::string candidates[] = {
      MVAppendPathComponent(MVResources::resourcesDirectory(), "Bug Reporter"),
      MVAppendPathComponent(MVResources::resourcesDirectory(), "Bug Reporter.app"),
      MVAppendPathComponent(executable, "Bug Reporter.app"),
      MVAppendPathComponent(executableDir, "Contents/MacOS/Bug Reporter.app"),
  };
  for (const std::string& app : candidates) {
    if (isExecutableFile(app)) {
      MVWorkspace::openFile(crashLog, app);
      return;
    }
  }
  // No reporter shipped: the desktop's default application for crash logs.
  MVWorkspace::openFile(crashLog);
}

}  // namespace

std::string MVBugReporter::defaultApplicationName() { return MVProcessInfo::executableName(); }

std::string MVBugReporter::defaultsPath(const std::string& applicationName) {
  return MVAppendPathComponent(MVLocalPaths::prefsDirectory(true), applicationName + ".plist");
}

void MVBugReporter::startBugReporter() { startBugReporter(std::nullopt, std::nullopt, nullptr); }

void MVBugReporter::startBugReporterWithDelegate(Delegate delegate) {
  startBugReporter(std::nullopt, std::nullopt, std::move(delegate));
}

void MVBugReporter::startBugReporter(const std::optional<std::string>& name, const std::optional<std::string>& plistPath) {
  startBugReporter(name, plistPath, nullptr);
}

void MVBugReporter::startBugReporter(const std::optional<std::string>& name, const std::optional<std::string>& plistPath,
                                     Delegate delegate) {
  auto crashLog = checkForCrashes(name, plistPath);
  if (delegate && crashLog) {
    if (MVRunLoop::hasMain())
      MVRunLoop::main().performOnMainThread([delegate, log = *crashLog] { delegate(log); }, false);
    else
      delegate(*crashLog);
  }
  recordMarker("launch", plistPath);
}

void MVBugReporter::stopBugReporter() { stopBugReporter(std::nullopt); }

void MVBugReporter::stopBugReporter(const std::optional<std::string>& plistPath) { recordMarker("exit", plistPath); }

std::optional<std::string> MVBugReporter::checkForCrashes() { return checkForCrashes(std::nullopt, std::nullopt); }

std::optional<std::string> MVBugReporter::checkForCrashes(const std::optional<std::string>& name,
                                                          const std::optional<std::string>& plistPath) {
  MVPlistValue store = MVPropertyList::read(markerStorePath(plistPath));
  auto launch = store["launch"].date();
  if (!launch) return std::nullopt;  // first run
  auto exit = store["exit"].date();
  if (exit && *exit >= *launch) return std::nullopt;  // the last run ended cleanly

  std::string applicationName = name ? *name : defaultApplicationName();
  auto crashLog = findCrashLog(applicationName, *launch);
  if (!crashLog) return std::nullopt;

  MVLog::appendLog("Application crashed on last launch");
  if (MVGlobalPreferences::isSwitchSet("disable-crash-reporter")) {
    std::fputs("Crash reporter disabled\n", stderr);
    MVLog::appendLog("Crash reporter disabled");
    return crashLog;
  }
  openWithBugReporter(*crashLog);
  return crashLog;
}

void MVBugReporter::chownPlist(const std::string& path) {
  std::vector<std::string> components;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    if (slash > start) components.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  for (std::size_t i = 0; i < components.size(); ++i) {
    if (components[i] != "Users") continue;
    if (i + 1 >= components.size()) return;
    MVTaskEx::runTask("/usr/sbin/chown", {components[i + 1], path}, 5.0);
    return;
  }
}
