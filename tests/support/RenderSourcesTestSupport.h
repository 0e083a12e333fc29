// Shared pieces of the render-source tests: the process's one controller,
// settings, hand-made render files, and what the controller announced as
// read back from its log.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "AppController.h"
#include "MVFSEvents.h"
#include "MVLog.h"
#include "MVPlistValue.h"
#include "QuillonPreferences.h"
#include "TestSupport.h"

namespace render_sources_test {

// Like the agent's own, the controller lives for the whole process: the
// post-render actions it starts run on detached threads that may outlast a
// test, so it is never destroyed.
inline AppController& controller() {
  alignas(AppController) static unsigned char storage[sizeof(AppController)];
  static AppController* shared = ::new (storage) AppController();
  return *shared;
}

inline void setSetting(const std::string& key, const MVPlistValue& value) {
  QuillonPreferences::setObject(value, key);
}

// Only the watcher under test is on, and announcements stay quiet (no
// desktop notification, no sound, no power action) so that only the
// controller's own bookkeeping and log tell what happened.
inline void enableOnly(const std::string& watcherKey) {
  for (const char* key : {"watchQmaster", "watchFCPRenders", "watchAvidRenders", "watchAMEQueue",
                          "watchPremiereRenders"})
    setSetting(key, key == watcherKey ? 1 : 0);
  setSetting("watchFolders", MVPlistValue(MVPlistValue::Array{}));
  setSetting("notifyGrowl", 0);
  setSetting("notifySound", 0);
  setSetting("logoutAction", 0);
}

// A render large enough to pass the size floor, written in one go.
inline void writeRender(const std::string& path, std::size_t bytes = 200 * 1024) {
  quillon_test::writeFile(path, std::string(bytes, 'r'));
}

inline bool isWatched(const std::string& path) {
  std::vector<std::string> paths = MVFSEvents::sharedController().watchPaths();
  return std::find(paths.begin(), paths.end(), path) != paths.end();
}

inline bool wasRecorded(const std::string& path) {
  auto recent = controller().recentFiles();
  return recent->count(path) != 0;
}

// The current log, with every pending line written.
inline std::string logText() {
  MVLog::finishWriting();
  return quillon_test::readFile(MVLog::currentLogPath());
}

inline std::size_t countInLog(const std::string& text) { return quillon_test::timesIn(logText(), text); }

// A field of the render description the controller announced for `path`
// (its "Render finished: {...}" log line); "" when absent, "-" when the
// render was not announced at all.
inline std::string announced(const std::string& path, const std::string& field) {
  std::string log = logText();
  std::size_t at = log.find("\n    fullPath = " + path + ";\n");
  if (at == std::string::npos) return "-";
  std::size_t begin = log.rfind("Render finished: {", at), end = log.find("\n}", at);
  std::size_t value = log.find("\n    " + field + " = ", begin);
  if (value == std::string::npos || value > end) return "";
  value = log.find(" = ", value) + 3;
  return log.substr(value, log.find(";\n", value) - value);
}

// Turns the loop until the controller has recorded `path` as announced.
inline bool waitForAnnouncement(const std::string& path, double seconds = 20) {
  return quillon_test::waitUntil([&] { return wasRecorded(path); }, seconds);
}

// Turns the loop until no folder check is pending or waiting for events.
inline bool waitForFolderChecks(double seconds = 20) {
  return quillon_test::waitUntil(
      [] { return !controller().hasPendingFolderCheck() && controller().currentFolders()->empty(); }, seconds);
}

}  // namespace render_sources_test
