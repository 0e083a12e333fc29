// Routing of file-system event batches and the folder check that decides
// whether a newly written media file is a finished render.
#include <dirent.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "AppController.h"
#include "FileAttributes.h"
#include "MVFSEvents.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVTaskEx.h"
#include "QuillonPreferences.h"

using namespace quillon;

namespace {

constexpr std::uint32_t kMooVType = 0x4D6F6F56;  // 'MooV'
const std::array<const char*, 10> kMediaExtensions = {"mov", "qt", "mpg", "m4v", "mp4",
                                                      "r3d", "wmv", "avi", "mxf", "mpeg"};

bool isMediaExtension(const std::string& ext) {
  return std::find(kMediaExtensions.begin(), kMediaExtensions.end(), ext) != kMediaExtensions.end();
}

// The Media Encoder writes its queue log in UTF-16 little-endian. nullopt
// (with the reason in `error`) when the file cannot be read or decoded, such
// as a file of odd length.
std::optional<std::string> readUTF16LE(const std::string& path, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "The file \"" + lastPathComponent(path) + "\" couldn't be opened.";
    return std::nullopt;
  }
  std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto text = MVDecodeString(bytes, kMVUTF16LittleEndianStringEncoding);
  if (!text) {
    error = "The file \"" + lastPathComponent(path) + "\" couldn't be read as UTF-16 little-endian text.";
    return std::nullopt;
  }
  // A byte-order mark at the start is no part of the text.
  if (text->rfind("\xEF\xBB\xBF", 0) == 0) text->erase(0, 3);
  return text;
}

std::string dateDescription(const std::optional<AppController::Date>& date) {
  return date ? MVDateDescription(*date) : std::string("0001-01-01 00:00:00 +0000");
}

}  // namespace

void AppController::startFolderWatcher() {
  MVPlistValue folders = objectForPreferenceDictionaryKey("watchFolders");
  MVLog::appendLog("Watch folders: %@", folders);
  std::vector<std::string> paths;
  if (const MVPlistValue::Array* list = folders.array())
    for (const MVPlistValue& entry : *list)
      if (const std::string* s = entry.string()) paths.push_back(*s);
  // Folders the user wants read again every few seconds (a share whose
  // writes by other machines the system does not announce).
  std::vector<std::string> polled;
  MVPlistValue polledFolders = objectForPreferenceDictionaryKey("watchFoldersPolled");
  if (const MVPlistValue::Array* list = polledFolders.array())
    for (const MVPlistValue& entry : *list)
      if (const std::string* s = entry.string()) polled.push_back(*s);
  MVFSEvents::sharedController().setPolledPaths(polled);
  watchPaths(paths);
}

bool AppController::pathIsPremierePreviewLocation(const std::string& path) {
  for (const std::string& location : premierePaths())
    if (hasPrefix(path, location)) return true;
  return false;
}

void AppController::fileSystemEventsReceived(const MVPlistValue::Array& events) {
  replaceTimer(folderTimer_, nullptr);

  auto pending = std::make_shared<FolderMap>(*currentFolders());
  std::string spool = qmasterSpoolPath();
  std::string spool4 = qmaster4SpoolPath();
  std::string privateSpool = "/private" + spool;
  std::string fcpPrefs = MVAppendPathComponent(MVLocalPaths::prefsDirectory(true), "Final Cut Pro User Data");

  bool applicationEvent = false, foldersChanged = false;
  for (const MVPlistValue& event : events) {
    const std::string* pathValue = event["path"].string();
    std::string path = pathValue ? *pathValue : std::string();
    if (hasPrefix(path, spool) || hasPrefix(path, spool4) || hasPrefix(path, privateSpool)) {
      processQmaster();
      applicationEvent = true;
    } else if (hasPrefix(path, fcpPrefs)) {
      auto last = lastFCPRenderPathUpdate_;
      // Final Cut Pro rewrites its preferences often; look again at most every 30 s.
      if (!(last && *last - now() >= -std::chrono::seconds(30))) startFCPQuillon();
      applicationEvent = true;
    } else if (path.empty() || hasSuffix(path, "/Constant Frames/")) {
      continue;
    } else {
      auto latest = latestFileInFolder(path);
      MVLog::appendLog("Latest file: %@", latest ? MVPlistValue(*latest) : MVPlistValue());
      if (latest && fileSize(*latest).value_or(0) != 0) {
        (*pending)[path] = now();
        foldersChanged = true;
      } else {
        pending->erase(path);
      }
    }
  }

  if (foldersChanged && !(applicationEvent && events.size() < 2)) {
    MVLog::appendLog("Starting timeout");
    setCurrentFolders(pending);
    replaceTimer(folderTimer_, MVRunLoop::main().scheduleTimer(3.0, false, [this] { processFolders(); }));
  }
  MVLog::appendLog("File system events: %@", MVPlistValue(events));
}

std::optional<std::string> AppController::latestFileInFolder(const std::string& folder) {
  std::optional<Date> newestDate;
  std::optional<std::string> newestPath;
  bool ameFolder = contains(folder, "/Adobe/Adobe Media Encoder");
  int error = 0;
  const std::vector<std::string> entries = MVFileManager::folderEntries(folder, &error);
  // A folder that vanished between the event and now is ordinary; one that
  // exists but cannot be listed is worth telling the user about.
  if (error && error != ENOENT && error != ENOTDIR)
    MVLog::appendLog("Unable to read the folder %@: %s", folder, std::strerror(error));
  for (const std::string& name : entries) {
    std::string fullPath = MVAppendPathComponent(folder, name);
    if (name.empty() || name[0] == '.') continue;
    std::string ext = lowercase(pathExtension(name));
    if (!isMediaExtension(ext)) {
      std::uint32_t code = fileTypeCode(fullPath);
      bool keep = ameFolder ? (code == kMooVType || name == "AMEEncodingLog.txt") : code == kMooVType;
      if (!keep) continue;
    }
    if (!pathExists(fullPath) || isDirectory(fullPath)) continue;
    if (contains(folder, "/Avid MediaFiles") && ext != "mxf") continue;
    if (contains(folder, "Preferences/Adobe/Adobe Media Encoder") && name != "AMEEncodingLog.txt") continue;
    auto modified = fileModificationDate(fullPath);
    if (modified && (!newestDate || *modified > *newestDate)) {
      newestDate = modified;
      newestPath = fullPath;
    }
  }
  MVLog::appendLog("Latest mod date: %@", dateDescription(newestDate));
  tidyRecentFiles();

  if (!newestPath) return std::nullopt;
  auto recent = recentFiles();
  auto it = recent->find(*newestPath);
  if (it != recent->end() && it->second == *newestDate) return std::nullopt;
  // An old file is not a new render.
  if (*newestDate - now() >= -std::chrono::seconds(60)) return newestPath;
  return std::nullopt;
}

void AppController::processFolders() {
  MVLog::appendLog("Processing folders...");
  auto folders = currentFolders();
  setCurrentFolders(nullptr);
  MVPlistValue::Array keys;
  for (const auto& [folder, date] : *folders) keys.emplace_back(folder);
  MVLog::appendLog("Checking folders %@", MVPlistValue(keys));

  bool announced = false;
  for (const auto& [folder, date] : *folders) {
    auto latest = latestFileInFolder(folder);
    processingFolder_ = false;
    MVLog::appendLog("Most recent file in folder %@ is %@", folder, latest ? MVPlistValue(*latest) : MVPlistValue());

    auto renderPath = fcpRenderPath();
    if (renderPath && hasPrefix(folder, *renderPath)) {
      if (cpuUsageForApplication("Final Cut Pro") >= 66) {
        MVLog::appendLog("CPU usage for Final Cut Pro is greater than 65%% - waiting...");
        continue;
      }
    } else if (contains(folder, "/Avid MediaFiles")) {
      if (cpuUsageForApplication("Avid Media Composer") >= 66) {
        MVLog::appendLog("CPU usage for Avid Media Composer is greater than 65%% - waiting...");
        continue;
      }
    } else if (pathIsPremierePreviewLocation(folder)) {
      if (cpuUsageForApplication("Adobe Premiere Pro") >= 66) {
        MVLog::appendLog("CPU usage for Adobe Premiere Pro is greater than 65%% - waiting...");
        continue;
      }
    }
    if (!latest) continue;

    MVLog::appendLog("%@ was modified recently", *latest);
    auto sizeBefore = fileSize(*latest).value_or(0);
    // A render still being written grows between the two readings.
    std::this_thread::sleep_for(std::chrono::duration<double>(sizeSettleSeconds_));
    auto sizeAfter = fileSize(*latest).value_or(0);
    if (sizeBefore != sizeAfter) continue;

    std::string name = lastPathComponent(*latest);
    if (name == "AMEEncodingLog.txt" && contains(*latest, "Adobe/Adobe Media Encoder")) {
      std::string error;
      std::string text = readUTF16LE(*latest, error).value_or("");
      if (!error.empty()) MVLog::appendLog("Error getting contents of AME log: %@", error);
      if (!hasSuffix(trimWhitespace(text), "Queue Stopped")) continue;
      MVLog::appendLog("AME queue stopped");
    }

    processingFolder_ = false;
    if (sizeAfter <= 102400 && pathExtension(*latest) != "txt") continue;

    MVPlistValue render;
    render.set("watchFilename", name);
    render.set("fullPath", *latest);
    render.set("type", "watchFile");
    if (renderPath && hasPrefix(folder, *renderPath)) {
      render.set("type", "fcpRender");
      if (folder.size() > renderPath->size() + 1) {
        std::string rest = folder.substr(renderPath->size() + 1);
        std::string project = rest.substr(0, rest.find('/'));
        if (!project.empty()) render.set("projectName", project);
      }
    } else if (contains(folder, "/Avid MediaFiles")) {
      render.set("type", "avidRender");
    } else if (pathIsPremierePreviewLocation(folder)) {
      render.set("type", "premiereRender");
      std::string project = deletingPathExtension(lastPathComponent(folder));
      if (!project.empty()) render.set("projectName", project);
    } else if (contains(folder, "/Adobe/Adobe Media Encoder")) {
      render.set("type", "ameQueue");
    }
    renderDidFinishSuccessfully(render);
    announced = true;
  }
  if (announced) MVRunLoop::detachThread([this] { performPostRenderActions(); });
}
