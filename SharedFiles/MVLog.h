// MVLog: the process-wide rotating log file.
//
// Lines are formatted on the caller's thread and written, time-stamped
// ("2024-05-01 13:45:10 +0000 - message"), by one serial writer thread into
// "<logs folder>/Morvane/<appName>.1.log"; createNewLog keeps four older
// generations (".2.log" to ".5.log") and the writer starts a new file once
// the current one passes 5,000,000 bytes. The main thread never waits on
// file I/O; a background thread that logs a short line on an idle writer
// waits until the line is on disk, so a worker's last words are not lost.
//
// Platforms: the logs folder is ~/Library/Logs on macOS and the XDG state
// home on Linux (MVLocalPaths::logDirectory). A process running as root
// writes its current file under the machine's logs folder (/var/log) while
// older generations, availableLogs() and the folder that is created stay in
// the user's folder.
//
// Nothing here throws or reports to the caller: failures are printed to
// standard output (unless noPrinting) and the log keeps trying.
// The switch "disable-logging" in "com.morvane.global.plist" turns the log
// off for the life of the process.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "MVException.h"
#include "MVFormat.h"

class MVLog {
 public:
  // The single instance, created on first use; it lives for the whole
  // process and shuts down (see willTerminate) when the process exits.
  static MVLog& sharedController();

  MVLog(const MVLog&) = delete;
  MVLog& operator=(const MVLog&) = delete;

  // Starts a new current file, rotating the older ones. The first name ever
  // given becomes appName for the life of the process.
  static void createNewLog();
  static void createNewLog(const std::string& name, bool noPrinting = false);

  // The usual entry point: formats (ObjC-style, see MVFormat.h) and enqueues.
  template <typename... Args>
  static void appendLog(std::string_view format, const Args&... args) {
    const MVFormatArg list[] = {MVFormatArg(args)..., MVFormatArg()};
    appendLogv(format, std::span<const MVFormatArg>(list, sizeof...(Args)));
  }
  // As appendLog, and prints the message to standard output. The message is
  // formatted twice: a conversion that arrived inside an argument (a file
  // named "50%@.mov") is formatted again with no arguments, as "(null)".
  template <typename... Args>
  static void appendLogAndPrint(std::string_view format, const Args&... args) {
    const MVFormatArg list[] = {MVFormatArg(args)..., MVFormatArg()};
    appendLogAndPrintv(format, std::span<const MVFormatArg>(list, sizeof...(Args)));
  }
  // As appendLogAndPrint without the printing (debug printing is compiled out).
  template <typename... Args>
  static void appendLogAndDebugPrint(std::string_view format, const Args&... args) {
    const MVFormatArg list[] = {MVFormatArg(args)..., MVFormatArg()};
    appendLogAndDebugPrintv(format, std::span<const MVFormatArg>(list, sizeof...(Args)));
  }
  // Enqueues without the wait of appendLog; used for the header lines.
  template <typename... Args>
  static void fastAppendLog(std::string_view format, const Args&... args) {
    const MVFormatArg list[] = {MVFormatArg(args)..., MVFormatArg()};
    fastAppendLogv(format, std::span<const MVFormatArg>(list, sizeof...(Args)));
  }
  template <typename... Args>
  static void debugPrint(std::string_view, const Args&...) {}

  static void appendLogv(std::string_view format, std::span<const MVFormatArg> args);
  static void appendLogAndPrintv(std::string_view format, std::span<const MVFormatArg> args);
  static void appendLogAndDebugPrintv(std::string_view format, std::span<const MVFormatArg> args);
  static void fastAppendLogv(std::string_view format, std::span<const MVFormatArg> args);

  // Blocks until every enqueued line is written. Called on the writer thread
  // itself it returns at once (everything enqueued before it is written).
  static void finishWriting();
  // The existing generations in the user's log folder, newest first.
  static std::vector<std::string> availableLogs();
  // Protects a literal percent sign followed by " .!,-;:+" from the
  // formatter; real conversions ("%@", "%li") pass through.
  static std::string escapeTextForLogging(const std::string& text);

  // The user's log folder and the path of the current file.
  static std::string logFolder();
  static std::string currentLogPath();

  // Trims white space and line ends and enqueues the rest, if any.
  void appendTextToLog(const std::string& text);
  // Writes one line; runs on the writer thread.
  void appendLogOnThread(const std::string& text);
  // Shutdown: wait for 10 or fewer pending lines, drop 11 or more; then
  // close the file and forget appName. Lines logged afterwards are dropped
  // until the next createNewLog. Runs by itself when the process exits.
  void willTerminate();

  // When unset, appName() answers the executable's file name without
  // extension, without storing it.
  std::string appName() const;
  void setAppName(const std::string& name);

  std::uint64_t bytesInQueue() const;
  std::uint64_t bytesWritten() const;
  bool loggingDisabled() const;
  bool noPrinting() const;
  // Lines enqueued and not yet written, counting the one being written.
  std::size_t operationCount() const;

  // Installs the std::terminate handler that logs the reason of an escaping
  // exception (see uncaughtExceptionHandler) before the process aborts. The
  // first sharedController() installs it; calling it again is harmless.
  static void installUncaughtExceptionHandler();

  // Test seams. Tests run as root, so the root rule is decided through
  // this override (nullopt: ask the system). A paused writer takes no new
  // line until resumed; willTerminate resumes it. resetForTesting writes
  // what is pending and returns the log to its state at process start.
  static void overrideRunningAsRoot(std::optional<bool> isRoot);
  static void setWriterPausedForTesting(bool paused);
  static void resetForTesting();

 private:
  MVLog();
  ~MVLog();
  struct State;
  std::unique_ptr<State> state_;
};

// Writes the reason of an exception that escaped to the top with
// appendLogAndPrint (as format text, after escaping), then finishWriting.
void uncaughtExceptionHandler(const std::string& reason);
