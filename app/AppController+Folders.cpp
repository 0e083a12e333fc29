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
#include "MVFrameSequence.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVMovieAtoms.h"
#include "MVOpenFiles.h"
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

// The Media Encoder keeps its queue log in its folder of the user's
// preferences; the watcher adds that folder's version folders.
std::string ameLogFolder() {
  return MVAppendPathComponent(MVLocalPaths::prefsDirectory(true), "Adobe/Adobe Media Encoder");
}

bool isMovieContainer(const std::string& ext) { return ext == "mov" || ext == "qt" || ext == "mp4" || ext == "m4v"; }

// A frame sequence written recently and not yet announced.
struct FreshSequence {
  MVFrameSequence frames;
  std::string folder;
  std::string newestFrame;  // full path
  AppController::Date newest;
  std::string firstFramePath() const { return MVAppendPathComponent(folder, frames.frames.front()); }
  std::vector<std::string> framePaths() const {
    std::vector<std::string> paths;
    for (const std::string& name : frames.frames) paths.push_back(MVAppendPathComponent(folder, name));
    return paths;
  }
};

// Seconds a frame sequence must stay unchanged before it counts as finished.
double sequenceQuietSeconds() {
  MVPlistValue value = AppController::objectForPreferenceDictionaryKey("sequenceQuietSeconds");
  double seconds = value.isNil() ? 10 : static_cast<double>(value.integerValue());
  return seconds > 0 ? seconds : 10;
}

// How long after its newest frame a sequence is still looked at: a minute,
// as for any render, or longer when the quiet time asks for it.
std::chrono::duration<double> sequenceWindow() {
  return std::chrono::duration<double>(std::max(60.0, sequenceQuietSeconds() + 30));
}

// The newest numbered still of `folder` and the rest of its sequence, when it
// was written within the window and the sequence was not announced since
// (`announced`: newest frame -> its date). Stills that are not numbered, and
// one numbered still alone, are no render of frames.
std::optional<FreshSequence> freshSequenceInFolder(const AppController& controller, const std::string& folder,
                                                   const AppController::FolderMap& announced) {
  if (!QuillonPreferences::isPresentOrOne("watchImageSequences")) return std::nullopt;
  if (contains(folder, "/Avid MediaFiles") || contains(folder, ameLogFolder())) return std::nullopt;
  std::optional<FreshSequence> found;
  std::optional<MVFrameName> newestName;
  const std::vector<std::string> names = folderEntries(folder);
  for (const std::string& name : names) {
    auto frame = MVFrameSequence::frameName(name);
    if (!frame) continue;
    std::string fullPath = MVAppendPathComponent(folder, name);
    auto modified = fileModificationDate(fullPath);
    if (!modified || isDirectory(fullPath)) continue;
    if (!found || *modified > found->newest) {
      found = FreshSequence{{}, folder, fullPath, *modified};
      newestName = frame;
    }
  }
  if (!found) return std::nullopt;
  if (found->newest - controller.now() < -sequenceWindow()) return std::nullopt;
  if (auto it = announced.find(found->newestFrame); it != announced.end() && it->second == found->newest)
    return std::nullopt;
  found->frames = MVFrameSequence::gather(names, *newestName);
  if (found->frames.frames.size() < 2) return std::nullopt;
  return found;
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
      if ((latest && fileSize(*latest).value_or(0) != 0) || freshSequenceInFolder(*this, path, announcedSequences_)) {
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
  // Only the queue log counts in the encoder's preferences folder.
  bool ameLogs = contains(folder, ameLogFolder());
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
    if (ameLogs && name != "AMEEncodingLog.txt") continue;
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
  std::vector<std::string> keys;
  for (const auto& [folder, date] : *folders) keys.push_back(folder);
  checkFolders(keys);
}

void AppController::scheduleFolderRecheck(const std::string& folder, double seconds) {
  folderRechecks_[folder] = std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                                  std::chrono::duration<double>(seconds));
  auto earliest = folderRechecks_.begin()->second;
  for (const auto& [path, due] : folderRechecks_) earliest = std::min(earliest, due);
  double wait = std::chrono::duration<double>(earliest - std::chrono::steady_clock::now()).count();
  replaceTimer(folderRecheckTimer_, MVRunLoop::main().scheduleTimer(std::max(0.0, wait), false, [this] { recheckFolders(); }));
}

void AppController::recheckFolders() {
  // Timers may fire a little early; a folder due within that slack is taken now.
  auto horizon = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
  std::vector<std::string> due;
  for (auto it = folderRechecks_.begin(); it != folderRechecks_.end();) {
    if (it->second > horizon) {
      ++it;
      continue;
    }
    due.push_back(it->first);
    it = folderRechecks_.erase(it);
  }
  if (!folderRechecks_.empty()) {
    auto [folder, when] = *folderRechecks_.begin();
    folderRechecks_.erase(folder);
    scheduleFolderRecheck(folder, std::chrono::duration<double>(when - std::chrono::steady_clock::now()).count());
  }
  if (due.empty()) return;
  MVLog::appendLog("Looking again at folders");
  checkFolders(due);
}

void AppController::checkFolders(const std::vector<std::string>& folders) {
  MVPlistValue::Array keys(folders.begin(), folders.end());
  MVLog::appendLog("Checking folders %@", MVPlistValue(keys));

  // The description of a file render; the folder decides its kind.
  auto describe = [this](const std::string& folder, const std::string& shownName, const std::string& fullPath) {
    auto renderPath = fcpRenderPath();
    MVPlistValue render;
    render.set("watchFilename", shownName);
    render.set("fullPath", fullPath);
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
    return render;
  };
  // A writer that still holds the file puts the folder off by 3 seconds, for
  // as long as it keeps the file open.
  auto heldByWriter = [this](const std::string& folder, const std::vector<std::string>& paths) {
    auto writer = MVOpenFiles::writerOfAnyOf(paths);
    if (!writer) return false;
    MVLog::appendLog("Still being written by %@ (pid %i): %@", writer->command, writer->pid,
                     lastPathComponent(writer->path));
    scheduleFolderRecheck(folder, 3.0);
    return true;
  };

  bool announced = false;
  for (const std::string& folder : folders) {
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

    // Numbered stills newer than any media file are a render of frames.
    auto sequence = freshSequenceInFolder(*this, folder, announcedSequences_);
    if (sequence && (!latest || sequence->newest > fileModificationDate(*latest).value_or(Date{}))) {
      std::string shown = sequence->frames.shownName();
      if (heldByWriter(folder, sequence->framePaths())) continue;
      // Frames arrive one by one with pauses between them; the sequence is
      // done once none was added or grew for the quiet time.
      double quiet = sequenceQuietSeconds();
      double since = std::chrono::duration<double>(now() - sequence->newest).count();
      if (since < quiet) {
        MVLog::appendLog("Frame sequence %@ changed %.1f seconds ago; looking again in %.1f seconds", shown, since,
                         quiet - since);
        scheduleFolderRecheck(folder, quiet - since);
        continue;
      }
      MVPlistValue render = describe(folder, shown, sequence->firstFramePath());
      std::string missing = sequence->frames.missingDescription();
      if (!missing.empty()) {
        MVLog::appendLog("Frame sequence %@: %@", shown, missing);
        render.set("missingFrames", missing);
      }
      renderDidFinishSuccessfully(render);
      // Its newest frame marks the sequence as announced, for as long as it
      // could be found fresh.
      for (auto it = announcedSequences_.begin(); it != announcedSequences_.end();)
        it = it->second - now() < -sequenceWindow() ? announcedSequences_.erase(it) : std::next(it);
      announcedSequences_[sequence->newestFrame] = sequence->newest;
      announced = true;
      continue;
    }
    if (!latest) continue;

    MVLog::appendLog("%@ was modified recently", *latest);
    if (heldByWriter(folder, {*latest})) continue;
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

    MVPlistValue render = describe(folder, name, *latest);
    // A movie whose writer died half-way cannot be played: say it failed.
    if (isMovieContainer(lowercase(pathExtension(name)))) {
      MVMovieCheck check = MVMovieAtoms::checkFile(*latest);
      if (check.verdict == MVMovieVerdict::RunsPastEnd || check.verdict == MVMovieVerdict::NoMovieAtom) {
        MVLog::appendLog("%@ is not a complete movie: %@", name, check.detail);
        renderDidFail(render);
        continue;
      }
    }
    renderDidFinishSuccessfully(render);
    announced = true;
  }
  if (announced) MVRunLoop::detachThread([this] { performPostRenderActions(); });
}
