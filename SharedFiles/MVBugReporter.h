// MVBugReporter: notices at start-up that the previous run crashed, logs it
// and offers the newest crash log to the bug-reporting application.
//
// Two time stamps decide it: start-up records "launch", a clean termination
// records "exit". A run whose "launch" is later than its "exit" and for which
// a crash log newer than that launch exists, crashed. The markers live in the
// application's own defaults (a property list named after the application in
// the preferences folder) or in a property list the caller names, as binary
// property lists, which keep the dates to the microsecond.
//
// The crash log offered is, in the first of the crash-log folders that has
// one, the log of the application whose name sorts last (the names carry
// the date and time). At every start only the ten newest of the
// application's own crash logs are kept in the folder its crash handler
// writes to. Without a bug reporter shipped beside the executable, the crash
// log goes to the application the desktop knows as "com.morvane.BugReporter"
// (MVWorkspace::applicationWithIdentifier), and failing that to the default
// application for the file.
#pragma once

#include <functional>
#include <optional>
#include <string>

class MVBugReporter {
 public:
  // Called on the main thread with the crash log's path when a crash was found.
  using Delegate = std::function<void(const std::string& crashLogPath)>;

  static void startBugReporter();
  static void startBugReporterWithDelegate(Delegate delegate);
  static void startBugReporter(const std::optional<std::string>& name, const std::optional<std::string>& plistPath);
  static void startBugReporter(const std::optional<std::string>& name, const std::optional<std::string>& plistPath,
                               Delegate delegate);

  static void stopBugReporter();
  static void stopBugReporter(const std::optional<std::string>& plistPath);

  static std::optional<std::string> checkForCrashes();
  static std::optional<std::string> checkForCrashes(const std::optional<std::string>& name,
                                                    const std::optional<std::string>& plistPath);

  // Hands a property list inside /Users/<name>/ back to that user.
  static void chownPlist(const std::string& path);

  // The application name used when none is given: the executable's name.
  static std::string defaultApplicationName();
  // Where the markers live when no property list is given.
  static std::string defaultsPath(const std::string& applicationName);
};
