// MVLog: the process-wide rotating log file.
//
// Lines are formatted on the caller's thread and written, time-stamped, by
// one serial writer thread into "<logs folder>/Morvane/<appName>.1.log";
// five generations are kept. The main thread never waits on file I/O.
// MVException formats caught exceptions into the log.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "MVFormat.h"

class MVLog {
 public:
  static MVLog& sharedController();

  MVLog(const MVLog&) = delete;
  MVLog& operator=(const MVLog&) = delete;

  static void createNewLog();
  static void createNewLog(const std::string& name, bool noPrinting = false);

  template <typename... Args>
  static void appendLog(std::string_view format, const Args&... args) {
    const MVFormatArg list[] = {MVFormatArg(args)..., MVFormatArg()};
    appendLogv(format, std::span<const MVFormatArg>(list, sizeof...(Args)));
  }
  template <typename... Args>
  static void appendLogAndPrint(std::string_view format, const Args&... args) {
    const MVFormatArg list[] = {MVFormatArg(args)..., MVFormatArg()};
    appendLogAndPrintv(format, std::span<const MVFormatArg>(list, sizeof...(Args)));
  }
  template <typename... Args>
  static void appendLogAndDebugPrint(std::string_view format, const Args&... args) {
    const MVFormatArg list[] = {MVFormatArg(args)..., MVFormatArg()};
    appendLogAndDebugPrintv(format, std::span<const MVFormatArg>(list, sizeof...(Args)));
  }
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

  static void finishWriting();
  static std::vector<std::string> availableLogs();
  static std::string escapeTextForLogging(const std::string& text);

  void appendTextToLog(const std::string& text);
  void appendLogOnThread(const std::string& text);
  // Shutdown: wait for 10 or fewer pending lines, drop 11 or more.
  void willTerminate();

  std::string appName() const;
  void setAppName(const std::string& name);

  // Installs the terminate handler that logs an escaping exception's reason.
  static void installUncaughtExceptionHandler();

 private:
  MVLog();
  ~MVLog();
  struct State;
  State* state_;
};

class MVException {
 public:
  // "Exception in %s. %@ - %@." written with appendLogAndPrint and returned.
  static std::string logException(const std::exception& exception, const char* method);
  static std::string logException(const std::string& name, const std::string& reason, const char* method);
  static bool didTimeout(const std::string& exceptionName) { return exceptionName == "NSPortTimeoutException"; }
};

void uncaughtExceptionHandler(const std::string& reason);
