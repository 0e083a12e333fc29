// quillon-helper: the background agent. It has no window; it runs the main
// loop until SIGTERM or SIGINT, and re-reads its settings on SIGHUP or on
// the "MVQuillonConfigUpdate" bus signal.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "AppController.h"
#include "MVBugReporter.h"
#include "MVCrashLog.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVRunLoop.h"
#include "MVSingleInstance.h"
#include "PlatformLinux.h"
#include "QuillonHelperAppDelegate.h"
#include "QuillonPreferences.h"

namespace {

void printUsage() {
  std::printf(
      "Usage: quillon-helper [--default-settings]\n"
      "Watches render folders and applications and tells you when a render finishes.\n"
      "  --default-settings  when no settings file exists, write one that watches\n"
      "                      the \"Renders\" folder in your videos folder\n"
      "Settings: %s\n",
      QuillonPreferences::settingsPath().c_str());
}

// A first run with no settings watches ~/Videos/Renders with notifications
// and sound, so that copying a movie there shows what the agent does.
void writeDefaultSettingsIfMissing() {
  std::string path = QuillonPreferences::settingsPath();
  if (std::filesystem::exists(path)) return;
  std::string renders = MVAppendPathComponent(MVLocalPaths::movieDirectory(), "Renders");
  std::error_code ec;
  std::filesystem::create_directories(renders, ec);
  std::filesystem::create_directories(MVLocalPaths::prefsDirectory(true), ec);
  MVPlistValue settings;
  settings.set("watchFolders", MVPlistValue::Array{MVPlistValue(renders)});
  settings.set("notifyGrowl", 1);
  settings.set("notifySound", 1);
  if (MVPropertyList::write(path, settings))
    std::printf("quillon: no settings found; wrote %s watching %s\n", path.c_str(), renders.c_str());
  else
    std::fprintf(stderr, "quillon: could not write default settings to %s\n", path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  bool defaults = false;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--default-settings")) {
      defaults = true;
    } else if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
      printUsage();
      return 0;
    } else {
      std::fprintf(stderr, "quillon-helper: unknown option %s\n", argv[i]);
      printUsage();
      return 2;
    }
  }

  // A second agent for the same user would announce every render twice.
  // Exit 0: the service manager must not restart a copy that is not needed.
  if (!MVSingleInstance::acquire("quillon-helper")) {
    std::fprintf(stderr, "quillon-helper: Quillon is already running for this user (pid %d); this copy exits.\n",
                 static_cast<int>(MVSingleInstance::holderProcessID("quillon-helper").value_or(0)));
    return 0;
  }
  MVCrashLog::install(MVBugReporter::defaultApplicationName());
  auto loop = quillon::createPlatformRunLoop();
  MVRunLoop::setMain(loop);
  MVLog::installUncaughtExceptionHandler();
  quillon::installPlatformServices();
  if (defaults) writeDefaultSettingsIfMissing();

  QuillonHelperAppDelegate delegate;
  loop->onSignal(SIGTERM, [&] { loop->stop(); });
  loop->onSignal(SIGINT, [&] { loop->stop(); });
  // As Linux daemons reload, SIGHUP re-reads the settings.
  loop->onSignal(SIGHUP, [] {
    if (AppController::hasSharedController()) AppController::sharedController().setup();
  });
  delegate.applicationDidFinishLaunching();
  loop->run();
  delegate.applicationWillTerminate();
  quillon::uninstallPlatformServices();
  return 0;
}
