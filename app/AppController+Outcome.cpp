// Turning a finished or failed render into the user's chosen actions, in a
// fixed order: notification, sound, reveal, open, send to an application,
// e-mail, text message, push, script.
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "AppController.h"
#include "FileAttributes.h"
#include "MVGrowl.h"
#include "MVLog.h"
#include "MVResources.h"
#include "MVSound.h"
#include "MVTaskEx.h"
#include "MVWorkspace.h"
#include "QuillonPreferences.h"

using namespace quillon;

namespace {

std::string stringValue(const MVPlistValue& v) {
  if (const std::string* s = v.string()) return *s;
  return v.isNil() ? std::string() : v.description();
}

struct TypeInfo {
  const char* type;
  const char* icon;
  const char* successName;
};

// Icons are our own files in the resources folder, under these base names
// (the resource lookup finds the PNG of the same base name on Linux).
const TypeInfo kTypes[] = {
    {"qmaster", "Compressor4.icns", "Compressor Batch Complete"},
    {"fcpRender", "Final Cut Pro.icns", "Final Cut Pro Render Complete"},
    {"avidRender", "Avid.icns", "Avid Media Composer Render Complete"},
    {"ameQueue", "AME.icns", "Adobe Media Encoder Queue Complete"},
    {"premiereRender", "Premiere.icns", "Adobe Premiere Render Complete"},
};

const TypeInfo* typeInfo(const std::string& type) {
  for (const auto& info : kTypes)
    if (type == info.type) return &info;
  return nullptr;
}

bool isQuietPeriod(const std::optional<AppController::Date>& last, AppController::Date now) {
  return last && (*last - now > -std::chrono::seconds(5));
}

}  // namespace

std::string AppController::iconForRender(const std::string& type, const std::string& fullPath) const {
  if (const TypeInfo* info = typeInfo(type)) {
    return MVResources::pathForImageResource(info->icon);
  }
  // A watch-folder render shows the icon of the folder that holds the file.
  return MVWorkspace::iconForFile(deletingLastPathComponent(fullPath));
}

void AppController::renderDidFinishSuccessfully(const RenderDescription& render) {
  MVLog::appendLog("Render finished: %@", render);

  Date current = now();
  bool quiet = isQuietPeriod(lastNotificationShown(), current);
  if (quiet) MVLog::appendLog("Last notification completed less than 5 seconds ago... skipping");
  setLastNotificationShown(current);

  bool onlyWhenInactive = QuillonPreferences::isEqualToOne("onlyWhenInactive");
  auto frontmostIs = [&](const std::string& application, const char* message) {
    if (onlyWhenInactive && frontmostApplicationName() == application) {
      MVLog::appendLog(message);
      return true;
    }
    return false;
  };

  std::string type = stringValue(render["type"]);
  std::string path, text;
  bool watchFolder = false;

  if (type == "qmaster") {
    if (!recordBatchUnlessAnnounced(stringValue(render["batchid"]))) return;
    if (frontmostIs("Compressor", "Compressor is currently active...skipping")) return;
    if (auto name = removingPercentEncoding(stringValue(render["name"]))) text = "Batch: " + *name;
  } else if (type == "fcpRender") {
    path = stringValue(render["fullPath"]);
    if (isFileRepeatedElseRecord(path)) return;
    if (frontmostIs("Final Cut Pro", "Final Cut Pro is currently active...skipping")) return;
    if (!render["projectName"].isNil()) text = "Project: " + stringValue(render["projectName"]);
  } else if (type == "avidRender" || type == "premiereRender") {
    path = stringValue(render["fullPath"]);
    std::string shown = render["projectName"].isNil() ? lastPathComponent(path) : stringValue(render["projectName"]);
    if (isFileRepeatedElseRecord(path)) return;
    // One test with the Avid name serves Premiere renders too.
    if (frontmostIs("Avid Media Composer", "Avid is currently active...skipping")) return;
    text = "File: " + shown;
  } else if (type == "ameQueue") {
    path = stringValue(render["fullPath"]);
    if (isFileRepeatedElseRecord(path)) return;
    text = "Adobe Media Encoder queue finished";
    if (frontmostIs("Adobe Media Encoder", "Adobe Media Encoder is currently active...skipping")) return;
  } else {
    watchFolder = true;
    path = stringValue(render["fullPath"]);
    if (isFileRepeatedElseRecord(path)) return;
    if (!render["watchFilename"].isNil()) text = "File: " + stringValue(render["watchFilename"]);
  }

  if (QuillonPreferences::isPresentOrOne("notifyGrowl") && !quiet) {
    const TypeInfo* info = typeInfo(type);
    MVGrowl::postGrowlNotification("Render Complete", text, iconForRender(type, path),
                                   info ? info->successName : "Watch Folder Render Complete");
  }
  if (QuillonPreferences::isPresentOrOne("notifySound") && !quiet) {
    incrementAsyncJobs();
    MVSound::play("Glass", [this](bool) { soundDidFinishPlaying(); });
  }

  if (!path.empty() && watchFolder) {
    if (QuillonPreferences::isEqualToOne("notifyFinder")) MVWorkspace::revealFile(path);
    std::string ext = lowercase(pathExtension(path));
    if (QuillonPreferences::isEqualToOne("notifyQuickTime") && ext != "mxf" && ext != "r3d")
      MVWorkspace::openFile(path, "QuickTime Player");
    MVPlistValue app = objectForPreferenceDictionaryKey("sendToAppPath");
    if (QuillonPreferences::isEqualToOne("notifySendToApp") && !app.isNil())
      MVWorkspace::openFile(path, stringValue(app));
  }

  if (QuillonPreferences::isEqualToOne("notifyEmail")) sendEmail(render, true);
  if (QuillonPreferences::isEqualToOne("notifyText") && QuillonPreferences::isNonEmpty("txtMessagePhoneNumber"))
    sendTextMessage(render, true);
  if (QuillonPreferences::isEqualToOne("notifyPush") && QuillonPreferences::isNonEmpty("pushTargets"))
    sendPush(render, true);

  if (QuillonPreferences::isEqualToOne("notifyRunScript") && QuillonPreferences::isNonEmpty("scriptPath")) {
    std::string script = stringValue(objectForPreferenceDictionaryKey("scriptPath"));
    std::string ext = lowercase(pathExtension(script));
    if (ext == "scpt")
      MVTaskEx::runTaskAndReturn("/usr/bin/osascript", {script});
    else if (ext == "sh")
      MVTaskEx::runTaskAndReturn("/bin/bash", {script});
    else if (ext == "swift")
      MVTaskEx::runTaskAndReturn("/usr/bin/swift", {script});
    else
      MVWorkspace::openFile(script);
  }
  MVLog::appendLog("Render complete");
}

void AppController::renderDidFail(const RenderDescription& render) {
  MVLog::appendLog("Render failed: %@", render);
  Date current = now();
  if (isQuietPeriod(lastNotificationShown(), current)) {
    MVLog::appendLog("Last notification completed less than 5 seconds ago... skipping");
    return;
  }
  setLastNotificationShown(current);

  std::string type = stringValue(render["type"]);
  std::string path, text;
  if (type == "qmaster") {
    if (!recordBatchUnlessAnnounced(stringValue(render["batchid"]))) return;
    text = "Batch: " + stringValue(render["name"]);
  } else if (type == "fcpRender") {
    path = stringValue(render["fullPath"]);
    if (isFileRepeatedElseRecord(path)) return;
    if (!render["projectName"].isNil()) text = "Project: " + stringValue(render["projectName"]);
  } else if (type == "avidRender" || type == "premiereRender") {
    path = stringValue(render["fullPath"]);
    if (isFileRepeatedElseRecord(path)) return;
    text = "File: " + lastPathComponent(path);
  } else if (type == "ameQueue") {
    text = "Adobe Media Encoder queue stopped.";
  } else {
    path = stringValue(render["fullPath"]);
    if (isFileRepeatedElseRecord(path)) return;
    if (!render["watchFilename"].isNil()) text = "File: " + stringValue(render["watchFilename"]);
  }

  if (QuillonPreferences::isPresentOrOne("notifyGrowl"))
    MVGrowl::postGrowlNotification("Render Failed", text, iconForRender(type, path), "Render Failed");
  if (QuillonPreferences::isPresentOrOne("notifySound")) {
    incrementAsyncJobs();
    MVSound::play("Sosumi", [this](bool) { soundDidFinishPlaying(); });
  }
  if (QuillonPreferences::isEqualToOne("notifyEmail")) sendEmail(render, false);
  if (QuillonPreferences::isEqualToOne("notifyText") && QuillonPreferences::isNonEmpty("txtMessageNumber"))
    sendTextMessage(render, false);
  if (QuillonPreferences::isEqualToOne("notifyPush") && QuillonPreferences::isNonEmpty("pushTargets"))
    sendPush(render, false);
}

bool AppController::recordBatchUnlessAnnounced(const std::string& batchID) {
  auto batches = recentBatches();
  if (std::find(batches->begin(), batches->end(), batchID) != batches->end()) return false;
  addRecentBatch(batchID);
  return true;
}

void AppController::soundDidFinishPlaying() { decrementAsyncJobs(); }

void AppController::waitForAsyncJobsWithTimeout(double seconds) {
  auto start = std::chrono::steady_clock::now();
  if (asyncJobs_.load() <= 0) {
    asyncJobs_.store(0);
    return;
  }
  for (;;) {
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (seconds > 0 && elapsed > seconds) {
      MVLog::appendLog("Async jobs timed out");
      MVLog::appendLog("Jobs remaining: %i", asyncJobs_.load());
      return;
    }
    // On the main thread the callbacks that lower the count arrive through
    // the loop itself, so turn it; elsewhere poll.
    if (MVRunLoop::main().isMainThread())
      MVRunLoop::main().runFor(0.01);
    else
      std::this_thread::sleep_for(std::chrono::seconds(1));
    if (asyncJobs_.load() < 1) {
      asyncJobs_.store(0);
      return;
    }
  }
}
