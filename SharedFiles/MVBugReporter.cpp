#include "MVBugReporter.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "MVCrashLog.h"
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

// How many of its own crash logs the agent keeps. Nothing else prunes its
// folder, and an agent that crashes at every start would fill it.
constexpr std::size_t kCrashLogsKept = 10;

// A new file is stamped with the kernel's coarse clock, which lags the clock
// the launch marker is read from by up to a scheduler tick: a crash a few
// milliseconds after start leaves a log that looks older than the launch.
constexpr std::chrono::milliseconds kFileClockLag{50};

const char* const kBugReporterIdentifier = "com.morvane.BugReporter";

std::string markerStorePath(const std::optional<std::string>& plistPath) {
  return plistPath ? *plistPath : MVBugReporter::defaultsPath(MVBugReporter::defaultApplicationName());
}

void recordMarker(const char* key, const std::optional<std::string>& plistPath) {
  std::string path = markerStorePath(plistPath);
  MVPlistValue store = MVPropertyList::read(path);
  if (!store.isDictionary()) store = MVPlistValue(MVPlistValue::Dictionary{});
  store.set(key, MVPlistValue(std::chrono::system_clock::now()));
  if (!plistPath) {
    std::string folder = path.substr(0, path.rfind('/'));
    mkdir(folder.c_str(), 0700);
  }
  // Binary, because an XML property list keeps whole seconds only: an exit
  // and the next launch in the same second (a quick restart) would compare
  // equal, and a crash of that run would count as a clean end.
  if (!MVPropertyList::write(path, store, MVPropertyList::Format::Binary)) return;
  if (plistPath) MVBugReporter::chownPlist(path);
}

std::optional<Date> modificationDate(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return std::nullopt;
  auto since = std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec);
  return Date(std::chrono::duration_cast<Date::duration>(since));
}

// Name order with runs of digits compared by their value, as a file browser
// sorts: the second report of one second ("..._host_2.crash") comes after the
// first ("..._host.crash") and the tenth ("_10") after the ninth.
bool sortsBefore(std::string_view a, std::string_view b) {
  auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (isDigit(a[i]) && isDigit(b[j])) {
      std::size_t endA = i, endB = j;
      while (endA < a.size() && isDigit(a[endA])) ++endA;
      while (endB < b.size() && isDigit(b[endB])) ++endB;
      std::string_view runA = a.substr(i, endA - i), runB = b.substr(j, endB - j);
      while (runA.size() > 1 && runA.front() == '0') runA.remove_prefix(1);
      while (runB.size() > 1 && runB.front() == '0') runB.remove_prefix(1);
      if (runA.size() != runB.size()) return runA.size() < runB.size();
      if (runA != runB) return runA < runB;
      i = endA;
      j = endB;
      continue;
    }
    if (a[i] != b[j]) return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
    ++i;
    ++j;
  }
  return a.size() - i < b.size() - j;
}

// The names in `folder` that begin with `prefix` (in any letter case), the
// newest last: after the prefix, crash-log names carry the date and time.
std::vector<std::string> crashLogNames(const std::string& folder, const std::string& prefix) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  if (!dir) return names;
  while (dirent* entry = readdir(dir))
    if (strncasecmp(entry->d_name, prefix.c_str(), prefix.size()) == 0) names.emplace_back(entry->d_name);
  closedir(dir);
  std::sort(names.begin(), names.end(), [&](const std::string& a, const std::string& b) {
    std::string_view restA = std::string_view(a).substr(prefix.size()), restB = std::string_view(b).substr(prefix.size());
    if (sortsBefore(restA, restB)) return true;
    if (sortsBefore(restB, restA)) return false;
    return a < b;
  });
  return names;
}

// The newest crash log of the application written after `launch`, searching
// the folders in order and taking, in each, the matching name that sorts
// last. The listing's own order is no guide: file systems list in hash order.
std::optional<std::string> findCrashLog(const std::string& name, Date launch) {
  const std::string prefix = name + "_";
  std::vector<std::string> folders;
  for (bool user : {true, false}) {
    folders.push_back(MVAppendPathComponent(MVLocalPaths::logDirectory(user), "CrashReporter"));
    folders.push_back(MVAppendPathComponent(MVLocalPaths::logDirectory(user), "DiagnosticReports"));
  }
  for (const std::string& folder : folders) {
    std::vector<std::string> names = crashLogNames(folder, prefix);
    if (names.empty()) continue;
    std::string path = MVAppendPathComponent(folder, names.back());
    auto modified = modificationDate(path);
    if (modified && *modified + kFileClockLag > launch) return path;
  }
  return std::nullopt;
}

// One of the logs the crash handler writes for `name`:
// "<name>_YYYY-MM-DD-<time>_<host>[_<n>].crash", in the name's own letter case.
bool isOwnCrashLog(const std::string& fileName, const std::string& name) {
  static const char kDatePattern[] = "dddd-dd-dd-";
  const std::size_t dateLength = sizeof kDatePattern - 1;
  if (fileName.compare(0, name.size() + 1, name + "_") != 0) return false;
  if (fileName.size() < name.size() + 1 + dateLength + std::strlen(".crash") || !fileName.ends_with(".crash"))
    return false;
  for (std::size_t k = 0; k < dateLength; ++k) {
    char c = fileName[name.size() + 1 + k];
    if (kDatePattern[k] == 'd' ? !std::isdigit(static_cast<unsigned char>(c)) : c != kDatePattern[k]) return false;
  }
  return true;
}

// Keeps the newest of the application's own crash logs in the folder its
// crash handler writes to. Other files there, other applications' logs
// among them, are left alone.
void pruneCrashLogs(const std::string& name) {
  const std::string folder = MVCrashLog::crashLogDirectory();
  std::vector<std::string> own;
  for (const std::string& fileName : crashLogNames(folder, name + "_")) {
    struct stat st {};
    std::string path = MVAppendPathComponent(folder, fileName);
    if (isOwnCrashLog(fileName, name) && lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) own.push_back(path);
  }
  if (own.size() <= kCrashLogsKept) return;
  for (std::size_t k = 0; k + kCrashLogsKept < own.size(); ++k)
    if (unlink(own[k].c_str()) != 0) MVLog::appendLog("Unable to remove old crash log %@", own[k]);
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
  // No reporter shipped: the one installed on the desktop under its
  // identifier, and without it the default application for crash logs.
  std::string installed = MVWorkspace::applicationWithIdentifier(kBugReporterIdentifier);
  if (!installed.empty()) {
    MVWorkspace::openFile(crashLog, installed);
    return;
  }
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
  pruneCrashLogs(name ? *name : defaultApplicationName());
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
